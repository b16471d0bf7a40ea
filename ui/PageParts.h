// What the pages have in common: texts and buttons, made and placed alike.
#pragma once

#include "ZELLayout.h"

class QLabel;
class QWidget;
class ZELUpdaterButton;

namespace zel {

/// The title, one of the texts' keys, `top` points below the page's top edge.
QLabel *makeTitle(QWidget *page, const char *key, int top);

/// Points from the message's top edge to the buttons, less a little that parts them.
inline constexpr int MessageRoom = 66;

/// The message below the title, `inset` points from both sides and at most `room` points high; without a key
/// it is empty. A message that is too long for its room is written smaller and, where that does not suffice,
/// shortened; the tool tip has it whole then.
QLabel *makeMessage(QWidget *page, const char *key, int inset, int room = MessageRoom);

/// A button without a place; `style` is that of `ZELUpdaterButton::setStyle`.
ZELUpdaterButton *makeButton(QWidget *page, const char *key, int style);

/// The region of one button or of a row of them, at the page's bottom.
ZELLayoutFrame buttonRowFrame();

} // namespace zel
