// Reading LZMA data in the xz container, in memory. publish/XZWriter.h makes it.
#pragma once

#include <QByteArray>

#include <optional>

namespace zel {

/// Decompresses one whole xz stream of plain LZMA2, its blocks side by side. Nothing when the data is not
/// exactly one sound stream, has another filter, would give more than `limit` bytes, has more than 65,536
/// blocks, or when memory runs out. Decoders take at most 512 MiB together (no encoder preset needs more than
/// 65 MiB); a block that needs more is refused. The result is allocated once, at the size that the stream's
/// index states.
std::optional<QByteArray> decompressXZ(QByteArrayView data, qint64 limit);

/// How many bytes a whole xz stream says it gives; nothing when it is none. Decompressing finds out whether
/// it lies.
std::optional<qint64> uncompressedSizeXZ(QByteArrayView data);

/// Decompresses to memory of the caller's, which has the size that the stream states. False where the above
/// gives nothing; what the memory then holds is anything.
bool decompressXZ(QByteArrayView data, char *result, qint64 size);

} // namespace zel
