#include "DownloadFraction.h"

#include "IntegerValue.h"

#include <algorithm>

namespace zel {

qint64 expectedBytes(qint64 announced, const QVariantMap &entry)
{
    if (announced > 0)
        return announced;
    const qint64 stated = integerValue(entry[QStringLiteral("size")]);
    return stated > 0 ? stated : -1;
}

double downloadFraction(qint64 received, qint64 expected)
{
    return expected > 0 ? std::clamp(double(received) / double(expected), 0.0, 1.0) : 0;
}

} // namespace zel
