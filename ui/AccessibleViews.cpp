#include "AccessibleViews.h"

#include "ZELUpdaterHistoryPage.h"
#include "ZELUpdaterPage.h"
#include "ZELUpdaterWindow.h"

#include <QLabel>

namespace zel {
namespace {

QAccessibleInterface *makeAccessibleView(const QString &, QObject *object)
{
    if (auto *window = qobject_cast<ZELUpdaterWindow *>(object))
        return new AccessibleView(window, QAccessible::Dialog); // owned by the cache of QAccessible
    if (qobject_cast<ZELUpdaterPage *>(object) || qobject_cast<ZELUpdaterHistoryPage *>(object))
        return new AccessibleView(static_cast<QWidget *>(object), QAccessible::Grouping);
    return nullptr;
}

QString messageOf(const ZELUpdaterPage &page)
{
    QStringList texts;
    for (const QLabel *label : page.findChildren<QLabel *>(Qt::FindDirectChildrenOnly)) {
        if (label != page.label())
            texts += label->text();
    }
    return texts.join(u' ');
}

} // namespace

void AccessibleView::install()
{
    QAccessible::installFactory(makeAccessibleView);
}

QString AccessibleView::text(QAccessible::Text kind) const
{
    const QString given = QAccessibleWidget::text(kind);
    const auto *page = qobject_cast<ZELUpdaterPage *>(widget());
    if (!page || !given.isEmpty())
        return given;
    if (kind == QAccessible::Name && page->label())
        return page->label()->text();
    return kind == QAccessible::Description ? messageOf(*page) : given;
}

} // namespace zel
