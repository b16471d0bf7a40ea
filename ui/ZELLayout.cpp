// Each function makes a rule of its arguments and gives it to the layout of the container that the views lie
// in (FrameLayout.h), which does the arithmetic. What a function cannot place it leaves alone.
#include "ZELLayout.h"

#include "FrameLayout.h"

#include <QWidget>

using zel::FrameLayout;

ZELLayoutFrame ZELMakeLayoutFrame(qint64 left, qint64 right, qint64 top, qint64 bottom, qint64 width,
                                  qint64 height)
{
    return {left, right, top, bottom, width, height};
}

QWidget *ZELLayoutView(QWidget *view, const ZELLayoutFrame &frame)
{
    if (auto *layout = FrameLayout::around({view}))
        layout->place(view, {.frame = frame});
    return view;
}

QWidget *ZELLayoutViewBelowView(QWidget *view, QWidget *reference, const ZELLayoutFrame &frame)
{
    if (auto *layout = FrameLayout::around({view, reference}))
        layout->place(view, {.frame = frame, .reference = reference});
    return view;
}

static void layoutRow(std::initializer_list<QWidget *> views, qint64 spacing, const ZELLayoutFrame &frame)
{
    auto *layout = FrameLayout::around(views);
    if (!layout)
        return;
    int column = 0;
    for (QWidget *view : views)
        layout->place(view,
                      {.frame = frame, .column = column++, .columns = int(views.size()), .spacing = spacing});
}

void ZELLayoutViewsHorizontal(QWidget *first, QWidget *second, qint64 spacing, const ZELLayoutFrame &frame)
{
    layoutRow({first, second}, spacing, frame);
}

void ZELLayoutViewsHorizontal2(QWidget *first, QWidget *second, QWidget *third, qint64 spacing,
                               const ZELLayoutFrame &frame)
{
    layoutRow({first, second, third}, spacing, frame);
}
