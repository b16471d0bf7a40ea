// Move deltas from file to file.
#pragma once

#include <QByteArrayView>

#include <span>

namespace zel {

/// The size of the file that a delta of either kind gives, as it claims; 0 of what is no delta.
qint64 outcomeOf(QByteArrayView delta);

/// The hash of a program's page, as move deltas want it computed: SHA-256.
void hashPage(std::span<const unsigned char> page, unsigned char *hash);

/// Writes what the delta makes of an open file to another, empty one. False when the delta is corrupt or
/// belongs to a file of another size, when memory runs out, and with `errno` when a file cannot be read or
/// written. Peak memory: both files, and what applyMoveDelta takes.
bool applyMoveDeltaFile(int oldFile, QByteArrayView delta, int newFile);

} // namespace zel
