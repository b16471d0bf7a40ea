// Placement of views: every view of the updater's window is put in its place by these few functions.
#pragma once

#include <ZELUpdater/ZELExport.h>
#include <ZELUpdater/ZELLayoutFrame.h>

class QWidget;

/// A layout frame, its values in the order of its fields.
ZEL_EXPORT ZELLayoutFrame ZELMakeLayoutFrame(qint64 left, qint64 right, qint64 top, qint64 bottom,
                                             qint64 width, qint64 height);

// What holds for all placement functions:
//
// The container is the view's `parentWidget()`. The first call gives it a layout, owned by it, that keeps the
// rules: they hold when the container is resized and when a content grows. In a visible container they take
// effect when the event loop next runs (which also shows a view that was never hidden on purpose), in a
// hidden one just before it is shown. A second call for a view replaces its rule. Taking a view out of its
// container, or deleting it, drops its rule and those that refer to it, whose views stay where they are.
// Hidden views keep their place. Containers have no margins, and their size is never derived from the views
// in them. Left stays left in languages that run from right to left.
//
// A call does nothing when a view is null or has no parent, when the views of one call have different
// parents, or when the container has a layout of another kind. Main thread only.

/// Places `view` in its container by `frame`. Returns `view`.
ZEL_EXPORT QWidget *ZELLayoutView(QWidget *view, const ZELLayoutFrame &frame);

/// As `ZELLayoutView`, but `top` is measured from the bottom edge of `reference`, a sibling of `view`: one
/// that these functions place is followed as it grows, any other is taken where it stands. Returns `view`.
ZEL_EXPORT QWidget *ZELLayoutViewBelowView(QWidget *view, QWidget *reference, const ZELLayoutFrame &frame);

/// Places siblings side by side, `first` on the left, with `spacing` logical pixels between them, across the
/// region that `frame` describes (the container's width where it leaves the width open). The widths are
/// equal; where the region does not divide evenly they differ by one pixel, so that the row fills it exactly.
ZEL_EXPORT void ZELLayoutViewsHorizontal(QWidget *first, QWidget *second, qint64 spacing,
                                         const ZELLayoutFrame &frame);

/// As `ZELLayoutViewsHorizontal`, for three views.
ZEL_EXPORT void ZELLayoutViewsHorizontal2(QWidget *first, QWidget *second, QWidget *third, qint64 spacing,
                                          const ZELLayoutFrame &frame);
