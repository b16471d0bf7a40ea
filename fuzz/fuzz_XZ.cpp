// Any bytes as LZMA data. The checksums of footer and index are set right, or nothing would get past them.
#include "Sandbox.h"
#include "xz/XZ.h"

#include <QtEndian>

#include <lzma.h>

namespace {

constexpr qsizetype FooterSize = LZMA_STREAM_HEADER_SIZE;

void setChecksum(QByteArray &bytes, qsizetype at, qsizetype from, qsizetype size)
{
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.constData());
    qToLittleEndian(lzma_crc32(data + from, size_t(size), 0), bytes.data() + at);
}

// Of the first block's header, so that filters and dictionary sizes of all kinds are met.
void setHeaderChecksum(QByteArray &bytes)
{
    constexpr qsizetype at = LZMA_STREAM_HEADER_SIZE;
    const qsizetype size = bytes.size() > at ? 4 * (qsizetype(uchar(bytes[at])) + 1) : 0;
    if (size >= 8 && at + size <= bytes.size())
        setChecksum(bytes, at + size - 4, at, size - 4);
}

void setChecksums(QByteArray &bytes)
{
    setHeaderChecksum(bytes);
    const qsizetype footer = bytes.size() - FooterSize;
    if (footer < 0)
        return;
    setChecksum(bytes, footer, footer + 4, 6);
    const qint64 indexSize = 4 * (qint64(qFromLittleEndian<quint32>(bytes.constData() + footer + 4)) + 1);
    if (indexSize > 4 && indexSize <= footer)
        setChecksum(bytes, footer - 4, footer - indexSize, indexSize - 4);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    constexpr qint64 limit = 1 << 20;
    QByteArray bytes(reinterpret_cast<const char *>(data), qsizetype(size));
    setChecksums(bytes);
    if (const auto result = zel::decompressXZ(bytes, limit))
        zel::require(result->size() <= limit);
    return 0;
}
