// How far a download has come.
#pragma once

#include <QVariantMap>

namespace zel {

/// The bytes that the download of `entry`, an update record or a patch entry, is to bring: what the server announced
/// with the file, else what the entry states as "size"; -1 when neither is known.
qint64 expectedBytes(qint64 announced, const QVariantMap &entry);

/// The share of a download that has arrived, 0 to 1. 0 while `expected` is not known, that is, not above zero; 1 when
/// more has come than was expected.
double downloadFraction(qint64 received, qint64 expected);

} // namespace zel
