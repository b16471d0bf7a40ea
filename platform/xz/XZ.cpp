#include "XZ.h"

#include "base/LargePages.h"
#include "platform/Queues.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <limits>
#include <lzma.h>
#include <memory>
#include <vector>

// Everything here is read from files that anybody may have made. The stream is taken apart by hand rather
// than handed to lzma_stream_buffer_decode, for three reasons: its index tells the result's size before
// anything is decoded, so that a caller can refuse it or reserve it in one piece; the blocks that it lists
// are decoded on all processors; and each part is judged for itself (one stream and nothing behind it, plain
// LZMA2 only, memory and number of blocks within limits).
//
// The index may lie. Every block is therefore decoded into exactly the place that the index gives it, from
// exactly the bytes, and must fill the one and use up the other; liblzma checks the checksums. Places of
// different blocks cannot overlap, as the index counts them up one behind the other.

namespace zel {

namespace {

struct EndIndex {
    void operator()(lzma_index *index) const { lzma_index_end(index, nullptr); }
};

using XZIndex = std::unique_ptr<lzma_index, EndIndex>;

const uint8_t *lzmaBytes(QByteArrayView data)
{
    return reinterpret_cast<const uint8_t *>(data.data());
}

constexpr uint64_t DecoderMemory = uint64_t(512) << 20;
constexpr lzma_vli BlockLimit = 1 << 16;
constexpr qsizetype FooterSize = LZMA_STREAM_HEADER_SIZE;

// The decoder's dictionary is as large as its block.
void *allocateWithLargePages(void *, size_t count, size_t size)
{
    void *const block = std::malloc(count * size); // liblzma asks for one item at a time
    adviseLargePages(block, count * size);
    return block;
}

void release(void *, void *block)
{
    std::free(block);
}

constexpr lzma_allocator Allocator = {allocateWithLargePages, release, nullptr};

// The index of data that is exactly one stream, header and footer included; null for other data. A lie in it
// is found when the blocks are decoded: both must agree.
XZIndex readIndex(QByteArrayView data, lzma_stream_flags &flags)
{
    lzma_stream_flags footer;
    if (data.size() < 2 * FooterSize || lzma_stream_header_decode(&flags, lzmaBytes(data)) != LZMA_OK
        || lzma_stream_footer_decode(&footer, lzmaBytes(data.last(FooterSize))) != LZMA_OK
        || lzma_stream_flags_compare(&flags, &footer) != LZMA_OK
        || footer.backward_size > lzma_vli(data.size() - 2 * FooterSize))
        return nullptr;
    uint64_t memory = lzma_index_memusage(1, BlockLimit);
    lzma_index *index = nullptr;
    const size_t end = size_t(data.size() - FooterSize);
    size_t at = end - footer.backward_size;
    if (lzma_index_buffer_decode(&index, &memory, nullptr, lzmaBytes(data), &at, end) != LZMA_OK)
        return nullptr;
    XZIndex owner(index);
    return at == end && lzma_index_file_size(index) == lzma_vli(data.size()) ? std::move(owner) : nullptr;
}

// One block of a stream, as its index and its own header describe it.
class StoredBlock
{
public:
    StoredBlock(const lzma_index_iter &place, lzma_check check)
        : m_start(place.block.compressed_stream_offset)
        , m_size(place.block.total_size)
        , m_outStart(place.block.uncompressed_stream_offset)
        , m_outSize(place.block.uncompressed_size)
        , m_unpaddedSize(place.block.unpadded_size)
    {
        m_filters[0].id = LZMA_VLI_UNKNOWN;
        m_header.version = 1;
        m_header.check = check;
    }

    StoredBlock(const StoredBlock &) = delete;
    StoredBlock &operator=(const StoredBlock &) = delete;
    ~StoredBlock() { lzma_filters_free(m_filters.data(), &Allocator); }

    bool readHeader(QByteArrayView stream)
    {
        const uint8_t *const in = lzmaBytes(stream) + m_start;
        m_header.filters = m_filters.data();
        if (*in == 0) // an index, not a block
            return false;
        m_header.header_size = lzma_block_header_size_decode(*in);
        return m_header.header_size <= m_size
            && lzma_block_header_decode(&m_header, &Allocator, in) == LZMA_OK && isPlain()
            && lzma_block_compressed_size(&m_header, m_unpaddedSize) == LZMA_OK;
    }

    uint64_t memory() const { return lzma_raw_decoder_memusage(m_filters.data()); }

    bool decode(QByteArrayView stream, uint8_t *result)
    {
        size_t read = m_start + m_header.header_size;
        size_t written = m_outStart;
        const size_t end = m_start + m_size;
        const size_t outEnd = m_outStart + m_outSize;
        return lzma_block_buffer_decode(&m_header, &Allocator, lzmaBytes(stream), &read, end, result,
                                        &written, outEnd)
            == LZMA_OK
            && read == end && written == outEnd;
    }

private:
    bool isPlain() const
    {
        return m_filters[0].id == LZMA_FILTER_LZMA2 && m_filters[1].id == LZMA_VLI_UNKNOWN;
    }

    size_t m_start;
    size_t m_size;
    size_t m_outStart;
    size_t m_outSize;
    lzma_vli m_unpaddedSize;
    lzma_block m_header = {};
    std::array<lzma_filter, LZMA_FILTERS_MAX + 1> m_filters = {};
};

using StoredBlocks = std::deque<StoredBlock>;

std::optional<StoredBlocks> readBlocks(QByteArrayView stream, const lzma_index &index, lzma_check check)
{
    StoredBlocks blocks;
    lzma_index_iter place;
    lzma_index_iter_init(&place, &index);
    while (!lzma_index_iter_next(&place, LZMA_INDEX_ITER_BLOCK)) {
        StoredBlock &block = blocks.emplace_back(place, check);
        if (!block.readHeader(stream) || block.memory() > DecoderMemory)
            return std::nullopt;
    }
    return blocks;
}

// The library's own threaded decoder is left aside: it handed freed memory to its threads when input was
// damaged in the versions that systems still carry.
bool decodeBlocks(StoredBlocks &blocks, QByteArrayView stream, uint8_t *result)
{
    std::vector<qint64> costs;
    for (const StoredBlock &block : blocks)
        costs.push_back(qint64(block.memory()));
    std::atomic<bool> sound = true;
    const auto decode = [&](size_t i) {
        if (sound && !blocks[i].decode(stream, result))
            sound = false;
    };
    runJobs(costs, decode, qint64(DecoderMemory));
    return sound;
}

bool decompress(QByteArrayView data, char *result, qint64 size)
{
    lzma_stream_flags flags;
    const XZIndex index = readIndex(data, flags);
    if (!index || lzma_index_uncompressed_size(index.get()) != lzma_vli(size))
        return false;
    std::optional<StoredBlocks> blocks = readBlocks(data, *index, flags.check);
    return blocks && decodeBlocks(*blocks, data, reinterpret_cast<uint8_t *>(result));
}

} // namespace

std::optional<qint64> uncompressedSizeXZ(QByteArrayView data)
{
    lzma_stream_flags flags;
    const XZIndex index = readIndex(data, flags);
    if (!index || lzma_index_uncompressed_size(index.get()) > lzma_vli(std::numeric_limits<qint64>::max()))
        return std::nullopt;
    return qint64(lzma_index_uncompressed_size(index.get()));
}

bool decompressXZ(QByteArrayView data, char *result, qint64 size)
{
    try {
        return decompress(data, result, size);
    } catch (const std::bad_alloc &) {
        return false;
    }
}

std::optional<QByteArray> decompressXZ(QByteArrayView data, qint64 limit)
{
    const std::optional<qint64> size = uncompressedSizeXZ(data);
    if (!size || *size > limit)
        return std::nullopt;
    try {
        QByteArray result(qsizetype(*size), Qt::Uninitialized);
        adviseLargePages(result.data(), size_t(*size));
        return decompress(data, result.data(), *size) ? std::optional(result) : std::nullopt;
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

} // namespace zel
