#include "Fonts.h"

#include <QFontDatabase>

namespace zel {

QFont systemFont(int size, QFont::Weight weight)
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    font.setPixelSize(size);
    font.setWeight(weight);
    return font;
}

} // namespace zel
