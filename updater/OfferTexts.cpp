#include "OfferTexts.h"

#include "IntegerValue.h"

#include <cstdlib>

namespace zel {

namespace {

const QString Version = QStringLiteral("version");
const QString Build = QStringLiteral("build");

float floatValue(const QVariant &value)
{
    return std::strtof(value.toString().toUtf8().constData(), nullptr);
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
