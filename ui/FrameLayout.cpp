// The pages are given as distances from edges and from each other, in points, as a designer measures them.
// Qt's box and grid layouts divide a room among contents instead and make windows as large as these ask;
// anchors of QGraphicsView and Qt Quick know such rules, but not for widgets. A layout of its own, rather
// than a resize event in each page, is what makes Qt tell of contents that grow, of views that leave, and of
// the moment before a window is first shown.
//
// How it works: the container's QLayout has one placement for each view, in the order of entry, and `Solver`
// turns them into rectangles whenever Qt asks. A view below another one makes the solver work that one out
// first, whatever the order. Invariants: a placement's view is a child of the container (`takeAt` is called
// when it leaves, and drops the rules that refer to it); a ring of references ends at the view's present
// place; all arithmetic is in 64 bits between bounds, so that no frame of a host can overflow; and the layout
// never asks its container for any size.
#include "FrameLayout.h"

#include <QHash>
#include <QPointer>
#include <QWidget>

#include <algorithm>

namespace zel {

namespace {

struct Span {
    qint64 start;
    qint64 length;
};

// The fields of a frame in one direction.
struct Axis {
    qint64 near;
    qint64 far;
    qint64 length;
    bool centred;
};

bool isSet(qint64 value)
{
    return value != ZELLayoutNotSet;
}

// Keeps every later sum far from overflow.
qint64 bounded(qint64 value)
{
    return std::clamp<qint64>(value, -QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
}

template <typename Content> Span spanOf(const Axis &axis, qint64 extent, const Content &content)
{
    const qint64 near = bounded(axis.near);
    const qint64 far = extent + bounded(axis.far);
    const bool stretched = isSet(axis.near) && isSet(axis.far);
    const qint64 wanted = isSet(axis.length) ? axis.length : stretched ? far - near : content();
    const qint64 length = std::max<qint64>(0, bounded(wanted));
    if (isSet(axis.near))
        return {near, length};
    if (isSet(axis.far))
        return {far - length, length};
    return {axis.centred ? (extent - length) / 2 : 0, length};
}

// A row fills the container where its frame leaves the width open.
Axis regionOf(Axis axis)
{
    if (!isSet(axis.length)) {
        axis.near = isSet(axis.near) ? axis.near : 0;
        axis.far = isSet(axis.far) ? axis.far : 0;
    }
    return axis;
}

// Each column ends where the exact division, rounded down, ends, so that the remainder never adds up.
Span columnOf(const Span &region, const PlacementRule &rule)
{
    const qint64 spacing = bounded(rule.spacing);
    const qint64 room = std::max<qint64>(0, region.length - spacing * (rule.columns - 1));
    const qint64 start = room * rule.column / rule.columns;
    const qint64 end = room * (rule.column + 1) / rule.columns;
    return {region.start + start + spacing * rule.column, end - start};
}

QSize contentSize(const QWidget *view)
{
    return view->sizeHint().expandedTo(view->minimumSize()).boundedTo(view->maximumSize());
}

int contentHeight(const QWidget *view, int width)
{
    if (!view->hasHeightForWidth())
        return contentSize(view).height();
    return std::clamp(view->heightForWidth(width), view->minimumHeight(), view->maximumHeight());
}

} // namespace

// Works out where the views of one container go, each at most once.
class FrameLayout::Solver
{
public:
    Solver(const std::vector<Placement> &placements, QSize container)
        : m_placements(placements)
        , m_container(container)
    {
    }

    QRect rectOf(QWidget *view)
    {
        const auto known = m_rects.constFind(view);
        if (known != m_rects.constEnd())
            return *known;
        // The present place stands in while the view is worked out: views that lie below each other in a ring
        // end here.
        m_rects.insert(view, view->geometry());
        const auto placement =
            std::ranges::find(m_placements, view, [](const Placement &p) { return p.item->widget(); });
        if (placement != m_placements.end() && placement->rule)
            m_rects.insert(view, solve(view, *placement->rule, placement->centred));
        return m_rects.value(view);
    }

private:
    QRect solve(QWidget *view, const PlacementRule &rule, Qt::Orientations centred)
    {
        const Span x = horizontal(view, rule, centred.testFlag(Qt::Horizontal));
        const int width = int(bounded(x.length));
        const Span y =
            vertical(rule, centred.testFlag(Qt::Vertical), [=] { return contentHeight(view, width); });
        return {int(bounded(x.start)), int(bounded(y.start)), width, int(bounded(y.length))};
    }

    Span horizontal(const QWidget *view, const PlacementRule &rule, bool centred) const
    {
        const Axis axis{rule.frame.left, rule.frame.right, rule.frame.width, centred};
        const auto content = [view] { return contentSize(view).width(); };
        if (rule.columns == 1)
            return spanOf(axis, m_container.width(), content);
        return columnOf(spanOf(regionOf(axis), m_container.width(), content), rule);
    }

    template <typename Content> Span vertical(const PlacementRule &rule, bool centred, const Content &content)
    {
        Axis axis{rule.frame.top, rule.frame.bottom, rule.frame.height, centred};
        if (rule.reference && isSet(axis.near))
            axis.near = bounded(axis.near) + qint64(rectOf(rule.reference).bottom()) + 1;
        return spanOf(axis, m_container.height(), content);
    }

    const std::vector<Placement> &m_placements;
    const QSize m_container;
    QHash<const QWidget *, QRect> m_rects;
};

FrameLayout::FrameLayout(QWidget *container)
    : QLayout(container)
{
    setContentsMargins(0, 0, 0, 0);
}

FrameLayout *FrameLayout::around(std::initializer_list<QWidget *> views)
{
    const QWidget *first = *views.begin();
    QWidget *container = first ? first->parentWidget() : nullptr;
    const auto outside = [=](const QWidget *view) { return !view || view->parentWidget() != container; };
    if (!container || std::ranges::any_of(views, outside))
        return nullptr;
    if (!container->layout())
        return new FrameLayout(container);
    return qobject_cast<FrameLayout *>(container->layout());
}

void FrameLayout::place(QWidget *view, const PlacementRule &rule)
{
    // A reference that nobody placed is entered too: only then is it noticed when it leaves.
    if (rule.reference)
        placementOf(rule.reference);
    placementOf(view).rule = rule;
    invalidate();
}

void FrameLayout::centre(QWidget *view, Qt::Orientation orientation)
{
    Placement &placement = placementOf(view);
    placement.centred |= orientation;
    if (!placement.rule)
        placement.rule.emplace();
    invalidate();
}

FrameLayout::Placement &FrameLayout::placementOf(QWidget *view)
{
    const auto placement =
        std::ranges::find(m_placements, view, [](const Placement &p) { return p.item->widget(); });
    if (placement != m_placements.end())
        return *placement;
    addWidget(view);
    return m_placements.back();
}

void FrameLayout::addItem(QLayoutItem *item)
{
    m_placements.push_back({std::unique_ptr<QLayoutItem>(item)});
}

int FrameLayout::count() const
{
    return int(m_placements.size());
}

QLayoutItem *FrameLayout::itemAt(int index) const
{
    return index >= 0 && index < count() ? m_placements[size_t(index)].item.get() : nullptr;
}

// Called when a view leaves the container, by another parent or by its end: it may be half destroyed by then.
QLayoutItem *FrameLayout::takeAt(int index)
{
    if (index < 0 || index >= count())
        return nullptr;
    std::unique_ptr<QLayoutItem> item = std::move(m_placements[size_t(index)].item);
    m_placements.erase(m_placements.begin() + index);
    for (Placement &placement : m_placements) {
        if (placement.rule && placement.rule->reference && placement.rule->reference == item->widget())
            placement.rule.reset();
    }
    return item.release();
}

// The window's size is its controller's decision: contents ask for no size, and by `minimumSize` for no least
// one.
QSize FrameLayout::sizeHint() const
{
    return {0, 0};
}

void FrameLayout::setGeometry(const QRect &rect)
{
    QLayout::setGeometry(rect);
    Solver solver(m_placements, parentWidget()->size());
    std::vector<std::pair<QPointer<QWidget>, QRect>> places;
    for (const Placement &placement : m_placements) {
        if (QWidget *view = placement.item->widget())
            places.emplace_back(view, solver.rectOf(view));
    }
    // A view may take others out of the container while it is resized.
    for (const auto &[view, place] : places) {
        if (view && view->parentWidget() == parentWidget())
            view->setGeometry(place);
    }
}

void centreHorizontally(QWidget *view)
{
    if (auto *layout = FrameLayout::around({view}))
        layout->centre(view, Qt::Horizontal);
}

void centreVertically(QWidget *view)
{
    if (auto *layout = FrameLayout::around({view}))
        layout->centre(view, Qt::Vertical);
}

} // namespace zel
