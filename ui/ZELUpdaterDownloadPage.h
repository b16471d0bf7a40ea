// The page that is shown while an update is downloaded and made ready.
#pragma once

#include <ZELUpdater/ZELUpdaterPage.h>

class ZEL_EXPORT ZELUpdaterDownloadPage : public ZELUpdaterPage
{
    Q_OBJECT
public:
    explicit ZELUpdaterDownloadPage(QWidget *parent = nullptr);

    /// What happens now; empty until a download starts.
    QLabel *text() const { return m_text; }
    void setText(QLabel *text) { m_text = text; }

    /// A bar from 0 to 1.
    ZELProgressIndicator *progress() const { return m_progress; }
    void setProgress(ZELProgressIndicator *progress) { m_progress = progress; }

private:
    QLabel *m_text;
    ZELProgressIndicator *m_progress;
};
