// The pages around the application's icon, one for each state of an update, and the simple views on and
// behind them. The page that offers an update has a header of its own, ZELUpdaterHistoryPage.h.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QImage>
#include <QWidget>

class QLabel;
class ZELProgressIndicator;
class ZELUpdaterButton;

/// Shows an image in its own proportions, centred; one that is too large is made to fit. Main thread only.
class ZEL_EXPORT ZELImageView : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(QImage image READ image WRITE setImage)
public:
    using QWidget::QWidget;

    QImage image() const { return m_image; }

    /// A null image shows nothing.
    void setImage(const QImage &image);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QImage m_image;
};

/// A dim background: fills its bounds with black at alpha 0.6. Main thread only.
class ZEL_EXPORT ZELUpdaterView : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *event) override;
};

/// A footer's upper edge: draws a line, one point high, in white 0.15 along its top edge and nothing else.
/// Main thread only.
class ZEL_EXPORT ZELUpdaterFooter : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent *event) override;
};

/// What the pages around the application's icon share. A page's parts are its children, made once; the
/// setters, here and in the pages, only name another one, which the page does not own. Accessibility clients
/// see a group named by the title and described by the other texts, as far as the page was given no other
/// name and description.
///
/// A page decides where its parts lie, never how large it is: the updater sizes the window when it shows a
/// page, and the page fills it. Main thread only.
class ZEL_EXPORT ZELUpdaterPage : public QWidget
{
    Q_OBJECT
public:
    ZELImageView *icon() const { return m_icon; }
    void setIcon(ZELImageView *icon) { m_icon = icon; }

    /// The title.
    QLabel *label() const { return m_label; }
    void setLabel(QLabel *label) { m_label = label; }

    ZELUpdaterButton *cancelButton() const { return m_cancelButton; }
    void setCancelButton(ZELUpdaterButton *cancelButton) { m_cancelButton = cancelButton; }

protected:
    /// Makes the icon and the title, one of the texts' keys, `titleTop` points below the top edge.
    ZELUpdaterPage(QWidget *parent, const char *titleKey, int titleTop);

private:
    ZELImageView *m_icon;
    QLabel *m_label;
    ZELUpdaterButton *m_cancelButton = nullptr;
};

/// Shown while the update server is asked.
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

/// Shown while an update is downloaded and made ready.
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

/// Shown after a failure.
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

/// Tells that there is no update.
class ZEL_EXPORT ZELUpdaterNoUpdatesPage : public ZELUpdaterPage
{
    Q_OBJECT
public:
    explicit ZELUpdaterNoUpdatesPage(QWidget *parent = nullptr);

    QLabel *text() const { return m_text; }
    void setText(QLabel *text) { m_text = text; }

private:
    QLabel *m_text;
};

/// Tells that an update was installed.
class ZEL_EXPORT ZELUpdaterUpdatedPage : public ZELUpdaterPage
{
    Q_OBJECT
public:
    explicit ZELUpdaterUpdatedPage(QWidget *parent = nullptr);

    QLabel *text() const { return m_text; }
    void setText(QLabel *text) { m_text = text; }

private:
    QLabel *m_text;
};
