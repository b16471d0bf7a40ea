#include "PageParts.h"

#include "ButtonRow.h"
#include "Fonts.h"
#include "TextLabel.h"
#include "ZELImageView.h"
#include "ZELLayout.h"
#include "ZELLocalization.h"
#include "ZELProgressIndicator.h"
#include "ZELUpdaterButton.h"

namespace zel {

namespace {

constexpr qint64 None = ZELLayoutNotSet;
constexpr int MessageTop = 266;
} // namespace

ZELImageView *makeIcon(QWidget *page)
{
    auto *icon = new ZELImageView(page);
    ZELLayoutView(icon, ZELMakeLayoutFrame(None, None, 32, None, 176, 176));
    centerHorizontally(icon);
    return icon;
}

QLabel *makeTitle(QWidget *page, const char *key, int top)
{
    const QString text = localized(key);
    auto *title =
        new TextLabel(text, systemFont(20, QFont::Light, text), QColor::fromRgbF(1, 1, 1, 0.85F), page);
    ZELLayoutView(title, ZELMakeLayoutFrame(32, -32, top, None, None, None));
    return title;
}

QLabel *makeMessage(QWidget *page, const char *key, int inset, int room)
{
    auto *message = new TextLabel(key ? localized(key) : QString(), systemFont(13, QFont::Normal),
                                  QColor::fromRgbF(0.6F, 0.6F, 0.6F), page);
    message->setWordWrap(true);
    message->setMaximumHeight(room);
    ZELLayoutView(message, ZELMakeLayoutFrame(inset, -inset, MessageTop, None, None, None));
    return message;
}

ZELProgressIndicator *makeActivity(QWidget *page, QWidget *reference, int bottom)
{
    auto *container = new QWidget(page);
    ZELLayoutViewBelowView(container, reference, ZELMakeLayoutFrame(0, 0, 0, -bottom, None, None));
    auto *progress = new ZELProgressIndicator(ZELProgressIndicator::Style::Spinning, container);
    progress->setHidden(true);
    ZELLayoutView(progress, ZELMakeLayoutFrame(None, None, None, None, 18, 18));
    centerHorizontally(progress);
    centerVertically(progress);
    return progress;
}

ZELUpdaterButton *makeButton(QWidget *page, const char *key, int style)
{
    auto *button = new ZELUpdaterButton(page);
    button->setLabel(localized(key));
    button->setStyle(style);
    return button;
}

ZELUpdaterButton *makeSingleButton(QWidget *page, const char *key, int style)
{
    ZELUpdaterButton *button = makeButton(page, key, style);
    ZELLayoutView(button, buttonRowFrame());
    return button;
}

} // namespace zel
