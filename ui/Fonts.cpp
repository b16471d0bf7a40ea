#include "Fonts.h"

#include <QFontDatabase>
#include <QGlyphRun>
#include <QRawFont>
#include <QTextLayout>

namespace zel {

namespace {

QStringList familiesOf(const QFont &font, const QString &text)
{
    QTextLayout layout(text, font);
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    QStringList families;
    for (const QGlyphRun &run : layout.glyphRuns())
        families += run.rawFont().familyName();
    families.removeDuplicates();
    families.sort();
    return families;
}

/// The weights from `weight` on, the nearest to it first, and the normal one at the end.
QList<QFont::Weight> weightsFrom(QFont::Weight weight)
{
    if (weight < QFont::Normal)
        return {weight, QFont::Normal};
    return {weight, QFont::Bold, QFont::Medium, QFont::Normal};
}

} // namespace

// The look-up of a stand-in minds the weight before the kind: for a light Arabic title it brings a monospaced font.
// What the text has at the normal weight is the kind that suits it.
QFont systemFont(int size, QFont::Weight weight, const QString &text)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(size);
    font.setWeight(QFont::Normal);
    if (weight == QFont::Normal)
        return font;
    const QStringList families = text.isEmpty() ? QStringList() : familiesOf(font, text);
    for (const QFont::Weight candidate : weightsFrom(weight)) {
        font.setWeight(candidate);
        if (text.isEmpty() || familiesOf(font, text) == families)
            break;
    }
    return font;
}

} // namespace zel
