#include "TextLabel.h"

#include "HighContrast.h"

#include <QEvent>
#include <QHelpEvent>
#include <QPainter>
#include <QTextLayout>
#include <QToolTip>

namespace zel {

namespace {

constexpr int smallestSize = 10; // five lines find room then

QString linesOf(const QString &text)
{
    return QString(text).replace(u'\n', QChar::LineSeparator);
}

/// Breaks the layout's text into lines; returns their height.
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

/// Draws the lines that find room, the last of them with all that is left, shortened.
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

} // namespace

TextLabel::TextLabel(const QString &text, const QFont &font, const QColor &color, QWidget *parent)
    : QLabel(text, parent)
    , m_color(color)
{
    setFont(font);
    setTextFormat(Qt::PlainText);
    setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    takeColor();
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

/// Lays the text out, as large as the rectangle allows; whether all of it is in there.
bool TextLabel::layOut(QTextLayout &layout) const
{
    QFont fitting = font();
    layout.setText(linesOf(text()));
    for (int size = font().pixelSize();; --size) {
        fitting.setPixelSize(size);
        layout.setFont(fitting);
        const qreal needed = breakLines(layout, width(), wordWrap());
        const bool isWhole = needed < height() + 1 && (wordWrap() || !isWider(layout, width()));
        if (isWhole || size <= smallestSize)
            return isWhole;
    }
}

bool TextLabel::event(QEvent *event)
{
    // The application's change reaches a widget within a window as one of its own.
    if (event->type() == QEvent::PaletteChange)
        takeColor();
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

void TextLabel::takeColor()
{
    QPalette colors = palette();
    colors.setColor(QPalette::WindowText, isHighContrast() ? QColor(Qt::white) : m_color);
    setPalette(colors);
}

} // namespace zel
