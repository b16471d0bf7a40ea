// Each page is built once, in its constructor, and filled in by the updater
// (updater/ZELUpdaterNavigation.cpp), which also wires its buttons and decides the window's size. All are
// drawn for 350 x 400 points: the icon at the top, the title at 230 (238 where nothing but a spinner
// follows), the message below it, and the buttons at the bottom, with what moves in the room between. A
// message may grow to several lines in some languages, so whatever stands below it is placed by
// `ZELLayoutViewBelowView`; only the room that the message leaves is fixed (`zel::MessageRoom`).
//
// The texts are looked up while a page is made: a change of language shows on pages made after it.
#include "ZELUpdaterPages.h"

#include "FrameLayout.h"
#include "PageParts.h"
#include "Texts.h"
#include "ZELProgressIndicator.h"
#include "ZELUpdaterButton.h"

#include <QAccessibleWidget>
#include <QLabel>
#include <QPainter>

namespace {

constexpr qint64 None = ZELLayoutNotSet;
constexpr int BarDistance = 12; // from the message
constexpr int BarHeight = 18;

// The application's icon at the top.
ZELImageView *makeIcon(QWidget *page)
{
    auto *icon = new ZELImageView(page);
    ZELLayoutView(icon, ZELMakeLayoutFrame(None, None, 32, None, 176, 176));
    zel::centreHorizontally(icon);
    return icon;
}

// A hidden spinning indicator in the middle of the room from `reference` down to `bottom` points above the
// page's bottom edge.
ZELProgressIndicator *makeActivity(QWidget *page, QWidget *reference, int bottom)
{
    auto *container = new QWidget(page);
    ZELLayoutViewBelowView(container, reference, ZELMakeLayoutFrame(0, 0, 0, -bottom, None, None));
    auto *progress = new ZELProgressIndicator(ZELProgressIndicator::Style::Spinning, container);
    progress->setHidden(true);
    ZELLayoutView(progress, ZELMakeLayoutFrame(None, None, None, None, 18, 18));
    zel::centreHorizontally(progress);
    zel::centreVertically(progress);
    return progress;
}

ZELProgressIndicator *makeBar(QWidget *page, QWidget *text)
{
    auto *bar = new ZELProgressIndicator(ZELProgressIndicator::Style::Bar, page);
    bar->setMaxValue(1);
    bar->setLayoutDirection(zel::textDirection());
    ZELLayoutViewBelowView(bar, text, ZELMakeLayoutFrame(60, -60, BarDistance, None, None, BarHeight));
    zel::centreHorizontally(bar);
    return bar;
}

// The only button at the page's bottom.
ZELUpdaterButton *makeSingleButton(QWidget *page, const char *key, int style)
{
    ZELUpdaterButton *button = zel::makeButton(page, key, style);
    ZELLayoutView(button, zel::buttonRowFrame());
    return button;
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

// A group named by the page's title and described by its message.
class AccessiblePage : public QAccessibleWidget
{
public:
    explicit AccessiblePage(ZELUpdaterPage *page)
        : QAccessibleWidget(page, QAccessible::Grouping)
    {
    }

    QString text(QAccessible::Text kind) const override
    {
        const QString given = QAccessibleWidget::text(kind);
        // Clients may still ask while the page is destroyed, when it is a page no more.
        const auto *page = qobject_cast<ZELUpdaterPage *>(widget());
        if (!page || !given.isEmpty())
            return given;
        if (kind == QAccessible::Name && page->label())
            return page->label()->text();
        return kind == QAccessible::Description ? messageOf(*page) : given;
    }
};

QAccessibleInterface *makeAccessiblePage(const QString &, QObject *object)
{
    auto *page = qobject_cast<ZELUpdaterPage *>(object);
    return page ? new AccessiblePage(page) : nullptr; // owned by the cache of QAccessible
}

} // namespace

void ZELImageView::setImage(const QImage &image)
{
    m_image = image;
    update();
}

void ZELImageView::paintEvent(QPaintEvent *)
{
    if (m_image.isNull())
        return;
    QPainter painter(this);
    const qreal ratio = painter.device()->devicePixelRatioF();
    const QSizeF room = QSizeF(size()) * ratio;
    QSizeF pixels = m_image.deviceIndependentSize() * ratio;
    if (pixels.width() > room.width() || pixels.height() > room.height())
        pixels.scale(room, Qt::KeepAspectRatio);
    // Scaled by hand: a painter that shrinks an image to less than half of its size drops pixels.
    QImage scaled = m_image.scaled(pixels.toSize(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    scaled.setDevicePixelRatio(ratio);
    QRectF place(QPointF(), scaled.deviceIndependentSize());
    place.moveCenter(QRectF(rect()).center());
    painter.drawImage(place.topLeft(), scaled);
}

void ZELUpdaterView::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(rect(), QColor::fromRgbF(0, 0, 0, 0.6F));
}

void ZELUpdaterFooter::paintEvent(QPaintEvent *)
{
    QPainter(this).fillRect(0, 0, width(), 1, QColor::fromRgbF(0.15F, 0.15F, 0.15F));
}

ZELUpdaterPage::ZELUpdaterPage(QWidget *parent, const char *titleKey, int titleTop)
    : QWidget(parent)
    , m_icon(makeIcon(this))
    , m_label(zel::makeTitle(this, titleKey, titleTop))
{
    QAccessible::installFactory(makeAccessiblePage); // once, however often it is called
}

ZELUpdaterCheckingPage::ZELUpdaterCheckingPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Checking for Updates", 238)
    , m_progress(makeActivity(this, label(), 64))
{
    setCancelButton(makeSingleButton(this, "Updater.Cancel", 0));
}

ZELUpdaterDownloadPage::ZELUpdaterDownloadPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Downloading", 230)
    , m_text(zel::makeMessage(this, nullptr, 32, zel::MessageRoom - BarDistance - BarHeight))
    , m_progress(makeBar(this, m_text))
{
    setCancelButton(makeSingleButton(this, "Updater.Cancel", 0));
}

ZELUpdaterErrorPage::ZELUpdaterErrorPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Error", 230)
    , m_text(zel::makeMessage(this, "Updater.An error occurred while updating.", 32))
    , m_progress(makeActivity(this, m_text, 50))
{
    setCancelButton(zel::makeButton(this, "Updater.Cancel", 0));
    m_retryButton = zel::makeButton(this, "Updater.Retry", 1);
    ZELLayoutViewsHorizontal(cancelButton(), m_retryButton, 32, zel::buttonRowFrame());
}

ZELUpdaterNoUpdatesPage::ZELUpdaterNoUpdatesPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Up To Date", 230)
    , m_text(zel::makeMessage(this, "Updater.No updates are available.", 24))
{
    setCancelButton(makeSingleButton(this, "Updater.Done", 1));
}

ZELUpdaterUpdatedPage::ZELUpdaterUpdatedPage(QWidget *parent)
    : ZELUpdaterPage(parent, "Updater.Completed", 230)
    , m_text(zel::makeMessage(this, "Updater.Updates were successfully installed.", 24))
{
    setCancelButton(makeSingleButton(this, "Updater.Done", 1));
}
