// Where a view lies: the measure that all placement takes.
#pragma once

#include <QtGlobal>

/// Stands in a field of a layout frame for "not set".
constexpr qint64 ZELLayoutNotSet = 9223372036854775807;

/// Where a view lies in its container, in logical pixels. Each field that is set is one constraint:
///
/// - `left`, `top`: distance of the view's edge from the same edge of the container, positive inside;
/// - `right`, `bottom`: the same for the far edges, where inside is negative (-32: 32 pixels inside);
/// - `width`, `height`: fixed size.
///
/// A size that is not set spans the two edges where both are set; otherwise it is the content's (`sizeHint`,
/// and `heightForWidth` for a text that wraps). A position that is not set is the container's left or top
/// edge, unless the view is centred. Where all three fields of a direction are set the far edge gives way.
/// Sizes never fall below zero; values beyond what a widget can have count as the greatest it can have.
struct ZELLayoutFrame {
    qint64 left = ZELLayoutNotSet;
    qint64 right = ZELLayoutNotSet;
    qint64 top = ZELLayoutNotSet;
    qint64 bottom = ZELLayoutNotSet;
    qint64 width = ZELLayoutNotSet;
    qint64 height = ZELLayoutNotSet;
};
