#include "ZELUpdaterUpdatedPage.h"

#include "PageParts.h"

ZELUpdaterUpdatedPage::ZELUpdaterUpdatedPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Completed", 230)
    , m_text(zel::makeMessage(this, "Updater.Updates were successfully installed.", 24))
{
    setCancelButton(zel::makeSingleButton(this, "Updater.Done", 1));
}
