// What the pages around the application's icon share.
#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QWidget>

class QLabel;
class ZELImageView;
class ZELProgressIndicator;
class ZELUpdaterButton;

/// A page's parts are its children, made once; the setters, here and in the pages, only name another one, which the
/// page does not own. Main thread only.
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
