// QLabel cuts off what does not fit. But a translation or a server's message may be of any length, while the
// buttons below stay where they are. So `TextLabel` lays its text out itself, going down from its font's size
// to `SmallestSize` until all of it fits, and shortens what does not fit even then. Nothing of that is kept
// between two paintings: the texts are few and short, and a layout that is kept would have to hear of each
// change of text, font and size.
#include "PageParts.h"

#include "Drawing.h"
#include "Texts.h"
#include "ZELUpdaterButton.h"

#include <QHelpEvent>
#include <QLabel>
#include <QPainter>
#include <QTextLayout>
#include <QToolTip>

namespace zel {

namespace {

constexpr int MessageTop = 266;
constexpr int SmallestSize = 10; // five lines find room then

QString linesOf(const QString &text)
{
    return QString(text).replace(u'\n', QChar::LineSeparator);
}

// Breaks the layout's text into lines; returns their height.
qreal breakLines(QTextLayout &layout, qreal width, bool wraps)
{
    QTextOption option(Qt::AlignHCenter);
    option.setTextDirection(Qt::LayoutDirectionAuto); // the application's by default
    option.setWrapMode(wraps ? QTextOption::WrapAtWordBoundaryOrAnywhere : QTextOption::ManualWrap);
    layout.setTextOption(option);
    qreal height = 0;
    layout.beginLayout();
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        line.setPosition({0, height});
        height += line.height();
    }
    layout.endLayout();
    return height;
}

bool isWider(const QTextLayout &layout, qreal width)
{
    for (int i = 0; i < layout.lineCount(); ++i) {
        if (layout.lineAt(i).naturalTextWidth() > width)
            return true;
    }
    return false;
}

// Draws the lines that find room, the last of them with all that is left, shortened.
void drawShortened(QPainter &painter, const QTextLayout &layout, const QRectF &room)
{
    int shown = 1;
    while (shown < layout.lineCount() && layout.lineAt(shown).rect().bottom() < room.height() + 1)
        ++shown;
    for (int i = 0; i < shown - 1; ++i)
        layout.lineAt(i).draw(&painter, room.topLeft());
    const QTextLine last = layout.lineAt(shown - 1);
    const QString rest = layout.text().mid(last.textStart()).replace(QChar::LineSeparator, u' ');
    painter.setFont(layout.font());
    painter.drawText(QRectF(room.left(), room.top() + last.y(), room.width(), last.height()),
                     Qt::AlignHCenter | Qt::AlignTop | Qt::TextSingleLine,
                     QFontMetricsF(layout.font()).elidedText(rest, Qt::ElideRight, room.width()));
}

// A centred text that stays within its rectangle: one that is too long for it is written smaller and, where
// that does not suffice, shortened; the tool tip has it whole then. A word that is wider than the label is
// broken. White where high contrast is asked for.
class TextLabel : public QLabel
{
public:
    TextLabel(const QString &text, const QFont &font, const QColor &colour, QWidget *parent);

    QSize sizeHint() const override;
    int heightForWidth(int width) const override;

protected:
    bool event(QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    bool layOut(QTextLayout &layout) const;
    void takeColour();

    const QColor m_colour;
};

TextLabel::TextLabel(const QString &text, const QFont &font, const QColor &colour, QWidget *parent)
    : QLabel(text, parent)
    , m_colour(colour)
{
    setFont(font);
    setTextFormat(Qt::PlainText);
    setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    takeColour();
}

// The fonts that stand in for scripts are often higher than the font itself.
QSize TextLabel::sizeHint() const
{
    QTextLayout layout(linesOf(text()), font());
    return {QLabel::sizeHint().width(), qCeil(breakLines(layout, QWIDGETSIZE_MAX, false))};
}

int TextLabel::heightForWidth(int width) const
{
    if (!wordWrap())
        return QLabel::heightForWidth(width);
    QTextLayout layout(linesOf(text()), font());
    return qCeil(breakLines(layout, width, true));
}

// Lays the text out, as large as the rectangle allows; whether all of it is in there.
bool TextLabel::layOut(QTextLayout &layout) const
{
    QFont fitting = font();
    layout.setText(linesOf(text()));
    for (int size = font().pixelSize();; --size) {
        fitting.setPixelSize(size);
        layout.setFont(fitting);
        const qreal needed = breakLines(layout, width(), wordWrap());
        const bool isWhole = needed < height() + 1 && (wordWrap() || !isWider(layout, width()));
        if (isWhole || size <= SmallestSize)
            return isWhole;
    }
}

bool TextLabel::event(QEvent *event)
{
    // The application's change reaches a widget within a window as one of its own.
    if (event->type() == QEvent::PaletteChange)
        takeColour();
    if (event->type() != QEvent::ToolTip)
        return QLabel::event(event);
    QTextLayout layout;
    if (layOut(layout))
        event->ignore();
    else
        QToolTip::showText(static_cast<QHelpEvent *>(event)->globalPos(), text().toHtmlEscaped(), this);
    return true;
}

void TextLabel::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(palette().color(QPalette::WindowText));
    QTextLayout layout;
    if (layOut(layout))
        layout.draw(&painter, {});
    else
        drawShortened(painter, layout, rect());
}

void TextLabel::takeColour()
{
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText, isHighContrast() ? QColor(Qt::white) : m_colour);
    setPalette(colours);
}

} // namespace

QLabel *makeTitle(QWidget *page, const char *key, int top)
{
    const QString text = localized(key);
    auto *title =
        new TextLabel(text, systemFont(20, QFont::Light, text), QColor::fromRgbF(1, 1, 1, 0.85F), page);
    ZELLayoutView(title, ZELMakeLayoutFrame(32, -32, top, ZELLayoutNotSet, ZELLayoutNotSet, ZELLayoutNotSet));
    return title;
}

QLabel *makeMessage(QWidget *page, const char *key, int inset, int room)
{
    auto *message = new TextLabel(key ? localized(key) : QString(), systemFont(13, QFont::Normal),
                                  QColor::fromRgbF(0.6F, 0.6F, 0.6F), page);
    message->setWordWrap(true);
    message->setMaximumHeight(room);
    ZELLayoutView(
        message,
        ZELMakeLayoutFrame(inset, -inset, MessageTop, ZELLayoutNotSet, ZELLayoutNotSet, ZELLayoutNotSet));
    return message;
}

ZELUpdaterButton *makeButton(QWidget *page, const char *key, int style)
{
    auto *button = new ZELUpdaterButton(page);
    button->setLabel(localized(key));
    button->setStyle(style);
    return button;
}

ZELLayoutFrame buttonRowFrame()
{
    return ZELMakeLayoutFrame(32, -32, ZELLayoutNotSet, -32, ZELLayoutNotSet, 32);
}

} // namespace zel
