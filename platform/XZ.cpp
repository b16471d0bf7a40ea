#include "XZ.h"

#include <algorithm>
#include <lzma.h>

namespace {

constexpr uint64_t DecoderMemory = uint64_t(512) << 20;
constexpr qsizetype DictionaryLimit = qsizetype(64) << 20;

const uint8_t *bytesOf(QByteArrayView data)
{
    return reinterpret_cast<const uint8_t *>(data.data());
}

// The size that the stream's index states. A lie is found when the blocks are decoded: both must agree.
std::optional<uint64_t> statedSize(QByteArrayView data)
{
    lzma_stream_flags footer;
    if (data.size() < 2 * LZMA_STREAM_HEADER_SIZE
        || lzma_stream_footer_decode(&footer, bytesOf(data.last(LZMA_STREAM_HEADER_SIZE))) != LZMA_OK
        || footer.backward_size > lzma_vli(data.size() - 2 * LZMA_STREAM_HEADER_SIZE))
        return std::nullopt;
    uint64_t memory = DecoderMemory;
    lzma_index *index = nullptr;
    size_t at = size_t(data.size()) - LZMA_STREAM_HEADER_SIZE - footer.backward_size;
    if (lzma_index_buffer_decode(&index, &memory, nullptr, bytesOf(data), &at,
                                 size_t(data.size()) - LZMA_STREAM_HEADER_SIZE)
        != LZMA_OK)
        return std::nullopt;
    const uint64_t size = lzma_index_uncompressed_size(index);
    lzma_index_end(index, nullptr);
    return size;
}

} // namespace

namespace zel {

std::optional<QByteArray> decompressXZ(QByteArrayView data, qint64 limit)
{
    const std::optional<uint64_t> size = statedSize(data);
    if (!size || *size > uint64_t(limit))
        return std::nullopt;
    QByteArray result;
    try {
        result.resize(qsizetype(*size));
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
    uint64_t memory = DecoderMemory;
    size_t read = 0;
    size_t written = 0;
    uint8_t none = 0; // an empty result still needs a place to write nothing to
    uint8_t *out = result.isEmpty() ? &none : reinterpret_cast<uint8_t *>(result.data());
    if (lzma_stream_buffer_decode(&memory, 0, nullptr, bytesOf(data), &read, size_t(data.size()), out,
                                  &written, size_t(result.size()))
            != LZMA_OK
        || read != size_t(data.size()) || written != size_t(result.size()))
        return std::nullopt;
    return result;
}

std::optional<QByteArray> compressXZ(QByteArrayView data, XZEffort effort)
{
    lzma_options_lzma options;
    lzma_lzma_preset(&options, effort == XZEffort::Best ? 9 | LZMA_PRESET_EXTREME : 1);
    options.dict_size = uint32_t(std::clamp<qsizetype>(data.size(), LZMA_DICT_SIZE_MIN, DictionaryLimit));
    lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
    QByteArray result;
    size_t written = 0;
    try {
        result.resize(qsizetype(lzma_stream_buffer_bound(size_t(data.size()))));
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
    if (lzma_stream_buffer_encode(filters, LZMA_CHECK_CRC64, nullptr, bytesOf(data), size_t(data.size()),
                                  reinterpret_cast<uint8_t *>(result.data()), &written, size_t(result.size()))
        != LZMA_OK)
        return std::nullopt;
    result.resize(qsizetype(written));
    result.squeeze();
    return result;
}

} // namespace zel
