// The page that tells that an update was installed.
#pragma once

#include <ZELUpdater/ZELUpdaterPage.h>

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
