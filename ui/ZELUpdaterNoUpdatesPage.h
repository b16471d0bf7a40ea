// The page that tells that there is no update.
#pragma once

#include <ZELUpdater/ZELUpdaterPage.h>

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
