#include "DownloadFraction.h"

#include <algorithm>

namespace zel {

double downloadFraction(qint64 received, qint64 expected)
{
    return expected > 0 ? std::clamp(double(received) / double(expected), 0.0, 1.0) : 0;
}

} // namespace zel
