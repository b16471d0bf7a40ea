// The page that is shown while the update server is asked.
#pragma once

#include <ZELUpdater/ZELUpdaterPage.h>

class ZEL_EXPORT ZELUpdaterCheckingPage : public ZELUpdaterPage
{
    Q_OBJECT
public:
    explicit ZELUpdaterCheckingPage(QWidget *parent = nullptr);

    /// Spinning; hidden until the page is shown.
    ZELProgressIndicator *progress() const { return m_progress; }
    void setProgress(ZELProgressIndicator *progress) { m_progress = progress; }

private:
    ZELProgressIndicator *m_progress;
};
