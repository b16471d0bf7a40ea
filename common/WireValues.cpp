// Servers and hosts have always written builds as they liked, as numbers and as texts with something behind
// the digits, and rely on what came of it. So a text is read up to the first character that is no digit,
// which Qt's own conversions refuse, and a number beyond 64 bits is held at the end of the range, never
// wrapped: a wrapped build would be an old one.
#include "WireValues.h"

#include <QLocale>

#include <cmath>
#include <limits>

namespace {

constexpr qint64 Least = std::numeric_limits<qint64>::min();
constexpr qint64 Most = std::numeric_limits<qint64>::max();

qint64 fromText(const QString &text)
{
    qsizetype at = 0;
    while (at < text.size() && text[at].isSpace())
        ++at;
    const bool negative = at < text.size() && text[at] == u'-';
    if (negative || (at < text.size() && text[at] == u'+'))
        ++at;
    qint64 value = 0;
    for (; at < text.size() && text[at] >= u'0' && text[at] <= u'9'; ++at) {
        const int digit = text[at].unicode() - u'0';
        if (__builtin_mul_overflow(value, 10, &value)
            || __builtin_add_overflow(value, negative ? -digit : digit, &value))
            return negative ? Least : Most;
    }
    return value;
}

qint64 fromDouble(double number)
{
    if (std::isnan(number))
        return 0;
    if (number >= 0x1p63)
        return Most;
    return number < -0x1p63 ? Least : qint64(number);
}

bool isInteger(int type)
{
    switch (type) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Char:
        return true;
    default:
        return false;
    }
}

bool isUnsigned(int type)
{
    return type == QMetaType::ULong || type == QMetaType::ULongLong;
}

} // namespace

qint64 zel::integerValue(const QVariant &value)
{
    if (isUnsigned(value.typeId()))
        return qint64(qMin(value.toULongLong(), qulonglong(Most)));
    if (isInteger(value.typeId()) || value.typeId() == QMetaType::Bool)
        return value.toLongLong();
    switch (value.typeId()) {
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return fromText(value.toString());
    case QMetaType::Double:
    case QMetaType::Float:
        return fromDouble(value.toDouble());
    default:
        return 0;
    }
}

QJsonValue zel::jsonValue(const QVariant &value)
{
    if (isUnsigned(value.typeId()))
        return QJsonValue::fromVariant(value.toULongLong());
    if (isInteger(value.typeId()))
        return value.toLongLong();
    return QJsonValue::fromVariant(value);
}

bool zel::isWebAddress(const QUrl &url)
{
    const QString scheme = url.scheme();
    return url.isValid() && !url.host().isEmpty()
        && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

QByteArray zel::userLanguages()
{
    QStringList languages = QLocale().uiLanguages();
    languages.removeAll(QLatin1String("C"));
    return languages.join(u',').toLatin1();
}
