// What reading and writing xz streams share.
#pragma once

#include <QByteArray>

#include <lzma.h>
#include <memory>

namespace zel {

struct FreeXZIndex {
    void operator()(lzma_index *index) const { lzma_index_end(index, nullptr); }
};

using XZIndex = std::unique_ptr<lzma_index, FreeXZIndex>;

inline const uint8_t *lzmaBytes(QByteArrayView data)
{
    return reinterpret_cast<const uint8_t *>(data.data());
}

inline uint8_t *lzmaBytes(QByteArray &data)
{
    return reinterpret_cast<uint8_t *>(data.data());
}

} // namespace zel
