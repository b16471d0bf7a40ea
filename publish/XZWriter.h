// Writing LZMA data in the xz container, in memory: streams of several blocks, each modelled for what it
// holds and all compressed side by side. xz/XZ.h reads them.
#pragma once

#include <QByteArray>

#include <optional>
#include <span>

namespace zel {

enum class XZContent {
    Bytes, ///< text, programs, anything
    Records, ///< rows of eight-byte values
    Sparse, ///< mostly zeros
    Numbers, ///< columns of numbers of a few bytes each
    Pairs, ///< of such a number and a byte
};

struct XZBlock {
    QByteArrayView data;
    XZContent content = XZContent::Bytes;
};

/// Compresses into one stream of plain LZMA2, block after block; any xz reader gives their bytes in a row. A
/// block knows nothing of the others, so parts that resemble each other belong into one. The outcome does not
/// depend on the machine. `memory` bounds what the encoders take together, about twelve bytes per byte of a
/// block (more for small ones) and 700 MiB at most; a block that needs more by itself gets it. The outcome
/// comes on top. Nothing when memory runs out.
std::optional<QByteArray> compressXZBlocks(std::span<const XZBlock> blocks, qint64 memory);

/// As one block of bytes. Nothing when memory runs out.
std::optional<QByteArray> compressXZ(QByteArrayView data);

/// About how many bytes the data would take compressed; quick, and of large data judged by samples. Serves to
/// compare.
qint64 estimateXZ(QByteArrayView data);

} // namespace zel
