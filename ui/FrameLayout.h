// The layout behind the placement functions: one per container, it keeps each view's rule and applies all of
// them whenever the container or a content changes.
#pragma once

#include "ZELLayoutFrame.h"

#include <QLayout>

#include <initializer_list>
#include <memory>
#include <optional>
#include <vector>

namespace zel {

/// How one view is placed: a frame, measured from a reference or shared with the other columns of a row.
struct PlacementRule {
    ZELLayoutFrame frame;
    QWidget *reference = nullptr;
    int column = 0;
    int columns = 1;
    qint64 spacing = 0;
};

class FrameLayout : public QLayout
{
    Q_OBJECT
public:
    /// The layout of the container that all `views` lie in, installed when it has none. Null when a view is
    /// null, when they have no parent or different ones, or when the container has a layout of another kind.
    static FrameLayout *around(std::initializer_list<QWidget *> views);

    /// Gives `view` its rule, in place of the one that it had; `rule.reference` lies in the same container.
    void place(QWidget *view, const PlacementRule &rule);
    /// Centres `view` in a direction that its rule leaves open.
    void centre(QWidget *view, Qt::Orientation orientation);

    void addItem(QLayoutItem *item) override;
    int count() const override;
    QLayoutItem *itemAt(int index) const override;
    QLayoutItem *takeAt(int index) override;
    QSize sizeHint() const override;
    void setGeometry(const QRect &rect) override;

private:
    /// A view without a rule stays where it is; it is kept for those that are placed below it.
    struct Placement {
        std::unique_ptr<QLayoutItem> item;
        std::optional<PlacementRule> rule = {};
        Qt::Orientations centred = {};
    };
    class Solver;

    explicit FrameLayout(QWidget *container);
    Placement &placementOf(QWidget *view);

    std::vector<Placement> m_placements;
};

/// Centres `view` in its container wherever its frame, given before or after, leaves the horizontal position
/// open.
void centreHorizontally(QWidget *view);

/// As `centreHorizontally`, for the vertical position.
void centreVertically(QWidget *view);

} // namespace zel
