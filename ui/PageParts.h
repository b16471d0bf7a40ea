// What the pages have in common: the parts that most of them show, made and placed alike.
#pragma once

class QLabel;
class QWidget;
class ZELImageView;
class ZELProgressIndicator;
class ZELUpdaterButton;

namespace zel {

/// The application's icon at the top.
ZELImageView *makeIcon(QWidget *page);

/// The title, one of the texts' keys, `top` points below the page's top edge.
QLabel *makeTitle(QWidget *page, const char *key, int top);

/// Points from the message's top edge to the buttons, less a little that parts them.
inline constexpr int MessageRoom = 66;

/// The message below the title, `inset` points from both sides and at most `room` points high; without a key it is
/// empty.
QLabel *makeMessage(QWidget *page, const char *key, int inset, int room = MessageRoom);

/// A hidden spinning indicator in the middle of the room from `reference` down to `bottom` points above the page's
/// bottom edge.
ZELProgressIndicator *makeActivity(QWidget *page, QWidget *reference, int bottom);

/// A button without a place.
ZELUpdaterButton *makeButton(QWidget *page, const char *key, int style);

/// As `makeButton`, placed as the only one at the page's bottom.
ZELUpdaterButton *makeSingleButton(QWidget *page, const char *key, int style);

} // namespace zel
