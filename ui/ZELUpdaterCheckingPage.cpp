#include "ZELUpdaterCheckingPage.h"

#include "PageParts.h"

#include <QLabel>

ZELUpdaterCheckingPage::ZELUpdaterCheckingPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Checking for Updates", 238)
    , m_progress(zel::makeActivity(this, label(), 64))
{
    setCancelButton(zel::makeSingleButton(this, "Updater.Cancel", 0));
}
