#include "ZELUpdaterPage.h"

#include "PageParts.h"

ZELUpdaterPage::ZELUpdaterPage(QWidget *parent, const char *titleKey, int titleTop)
    : QWidget(parent)
    , m_icon(zel::makeIcon(this))
    , m_label(zel::makeTitle(this, titleKey, titleTop))
{
}
