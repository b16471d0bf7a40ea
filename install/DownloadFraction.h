// How far a download has come.
#pragma once

#include <QtGlobal>

#include <algorithm>

namespace zel {

/// The share of a download that has arrived, 0 to 1. 0 while `expected` is not known, that is, not above
/// zero; 1 when more has come than was expected.
inline double downloadFraction(qint64 received, qint64 expected)
{
    return expected > 0 ? std::clamp(double(received) / double(expected), 0.0, 1.0) : 0;
}

} // namespace zel
