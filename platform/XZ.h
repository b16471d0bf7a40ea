// LZMA data in the xz container, in memory.
#pragma once

#include <QByteArray>

#include <optional>

namespace zel {

/// Decompresses one whole xz stream. Nothing when the data is not exactly one sound stream, when it would give more
/// than `limit` bytes, or when decoding needs more than 512 MiB besides its input and output (no encoder preset needs
/// more than 65 MiB). The result is allocated once, at the size that the stream's index states.
std::optional<QByteArray> decompressXZ(QByteArrayView data, qint64 limit);

/// Best is as small as the encoder can; Quick tells which of two inputs would become smaller.
enum class XZEffort { Best, Quick };

/// Compresses into one xz stream of plain LZMA2, which every xz reader can read.
/// Nothing when memory runs out: the encoder needs about eleven bytes per byte of data, 700 MiB at most.
std::optional<QByteArray> compressXZ(QByteArrayView data, XZEffort effort = XZEffort::Best);

} // namespace zel
