// A bundle patch file of any manifest and payload, packed with as little work as can be.
#pragma once

#include "install/PatchFile.h"

#include <lzma.h>

namespace zel {

inline QByteArray packed(const QByteArray &data)
{
    const size_t size = size_t(data.size());
    QByteArray result(qsizetype(lzma_stream_buffer_bound(size)), Qt::Uninitialized);
    size_t written = 0;
    lzma_easy_buffer_encode(0, LZMA_CHECK_CRC32, nullptr, reinterpret_cast<const uint8_t *>(data.data()),
                            size, reinterpret_cast<uint8_t *>(result.data()), &written,
                            size_t(result.size()));
    return result.first(qsizetype(written));
}

inline QByteArray patchBytes(const QByteArray &manifest, const QByteArray &payload)
{
    const QByteArray first = packed(manifest);
    return QByteArray::number(first.size()).leftJustified(PatchFile::HeaderSize, '\0') + first
        + packed(payload);
}

} // namespace zel
