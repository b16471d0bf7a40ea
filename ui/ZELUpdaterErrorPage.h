// The page that is shown after a failure.
#pragma once

#include <ZELUpdater/ZELUpdaterPage.h>

class ZEL_EXPORT ZELUpdaterErrorPage : public ZELUpdaterPage
{
    Q_OBJECT
public:
    explicit ZELUpdaterErrorPage(QWidget *parent = nullptr);

    QLabel *text() const { return m_text; }
    void setText(QLabel *text) { m_text = text; }

    /// Spinning and hidden; nothing shows it yet.
    ZELProgressIndicator *progress() const { return m_progress; }
    void setProgress(ZELProgressIndicator *progress) { m_progress = progress; }

    ZELUpdaterButton *retryButton() const { return m_retryButton; }
    void setRetryButton(ZELUpdaterButton *retryButton) { m_retryButton = retryButton; }

private:
    QLabel *m_text;
    ZELProgressIndicator *m_progress;
    ZELUpdaterButton *m_retryButton = nullptr;
};
