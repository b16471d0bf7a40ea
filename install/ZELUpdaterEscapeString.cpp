#include "ZELUpdaterEscapeString.h"

QString ZELUpdaterEscapeString(const QString &string)
{
    QString escaped = string;
    for (const char16_t character : {u'(', u')', u' ', u'&'})
        escaped.replace(QChar(character), QString(u'\\') + QChar(character));
    return escaped;
}
