#include "OfferTexts.h"

#include "IntegerValue.h"

#include <charconv>

namespace zel {

namespace {

const QString Version = QStringLiteral("version");
const QString Build = QStringLiteral("build");

float floatValue(const QVariant &value)
{
    // Not strtof, which reads a number as the user's country writes it.
    const QByteArray text = value.toString().trimmed().toUtf8();
    float number = 0;
    std::from_chars(text.begin(), text.end(), number);
    return number;
}

} // namespace

OfferTexts offerTexts(const QVariantMap &config, const QVariantMap &record)
{
    const float current = floatValue(config[Version]);
    OfferTexts texts{QString::asprintf("%.2f", double(current)), record[Version].toString()};
    if (current == floatValue(record[Version])) {
        texts.offered += QStringLiteral(" (%1)").arg(record[Build].toString());
        texts.current += QStringLiteral(" (%1)").arg(integerValue(config[Build]));
    }
    return texts;
}

} // namespace zel
