#include "ZELUpdaterNoUpdatesPage.h"

#include "PageParts.h"

ZELUpdaterNoUpdatesPage::ZELUpdaterNoUpdatesPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Up To Date", 230)
    , m_text(zel::makeMessage(this, "Updater.No updates are available.", 24))
{
    setCancelButton(zel::makeSingleButton(this, "Updater.Done", 1));
}
