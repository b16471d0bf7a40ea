#include "ZELUpdaterDownloadPage.h"

#include "PageParts.h"
#include "ZELLayout.h"
#include "ZELLocalization.h"
#include "ZELProgressIndicator.h"

#include <QLabel>

namespace {

constexpr int BarDistance = 12; // from the message
constexpr int BarHeight = 18;

ZELProgressIndicator *makeBar(QWidget *page, QWidget *text)
{
    constexpr qint64 None = ZELLayoutNotSet;
    auto *bar = new ZELProgressIndicator(ZELProgressIndicator::Style::Bar, page);
    bar->setMaxValue(1);
    bar->setLayoutDirection(zel::textDirection());
    ZELLayoutViewBelowView(bar, text, ZELMakeLayoutFrame(60, -60, BarDistance, None, None, BarHeight));
    zel::centerHorizontally(bar);
    return bar;
}

} // namespace

ZELUpdaterDownloadPage::ZELUpdaterDownloadPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Downloading", 230)
    , m_text(zel::makeMessage(this, nullptr, 32, zel::MessageRoom - BarDistance - BarHeight))
    , m_progress(makeBar(this, m_text))
{
    setCancelButton(zel::makeSingleButton(this, "Updater.Cancel", 0));
}
