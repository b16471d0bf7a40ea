#include "XZWriter.h"

#include "platform/Queues.h"

#include <algorithm>
#include <array>
#include <limits>
#include <lzma.h>
#include <memory>
#include <vector>

// The stream is put together from blocks by hand: each is compressed on a processor of its own, with the
// model for what it holds, and which of several models is best for plain bytes is found by compressing a
// sample from the block's middle with each. No executable filter is used: readers that know plain LZMA2
// alone, ours among them, refuse streams with one.
//
// What a block becomes depends on its bytes alone, never on the number of processors or on the memory given,
// so that a patch can be made again byte by byte.

namespace zel {

namespace {

constexpr qsizetype DictionaryLimit = qsizetype(64) << 20;
constexpr qsizetype SampleSize = qsizetype(512) << 10;
constexpr lzma_check Check = LZMA_CHECK_CRC64;

// How many bits of what went before the encoder looks at for a literal, and how many of the position for a
// literal and for everything.
struct LiteralModel {
    uint32_t lc;
    uint32_t lp;
    uint32_t pb;
};

// The models that were smallest on programs, on text and on deltas of both. Which of several is best for
// other bytes depends on them.
std::span<const LiteralModel> modelsOf(XZContent content)
{
    static constexpr LiteralModel bytes[] = {{3, 0, 2}, {4, 0, 0}, {4, 0, 3}};
    static constexpr LiteralModel records[] = {{1, 3, 3}};
    static constexpr LiteralModel sparse[] = {{4, 0, 0}};
    static constexpr LiteralModel numbers[] = {{0, 0, 0}};
    static constexpr LiteralModel pairs[] = {{3, 0, 0}};
    switch (content) {
    case XZContent::Records:
        return records;
    case XZContent::Sparse:
        return sparse;
    case XZContent::Numbers:
        return numbers;
    case XZContent::Pairs:
        return pairs;
    case XZContent::Bytes:
        break;
    }
    return bytes;
}

// The options of one block. The filter points into the object itself.
class EncoderFilters
{
public:
    EncoderFilters(const XZBlock &block, const LiteralModel &model)
    {
        lzma_lzma_preset(&m_options, 9 | LZMA_PRESET_EXTREME);
        m_options.dict_size =
            uint32_t(std::clamp<qsizetype>(block.data.size(), LZMA_DICT_SIZE_MIN, DictionaryLimit));
        // Values that repeat by chance are cheaper as literals between short matches.
        if (block.content == XZContent::Records)
            m_options.nice_len = 64;
        if (block.content == XZContent::Sparse) {
            m_options.mf = LZMA_MF_BT2; // as small as with longer hashes, but quicker
            m_options.depth = 40; // searching on gives two hundredths and takes a sixth of the time
        }
        m_options.lc = model.lc;
        m_options.lp = model.lp;
        m_options.pb = model.pb;
    }

    EncoderFilters(const EncoderFilters &) = delete;
    EncoderFilters &operator=(const EncoderFilters &) = delete;

    lzma_filter *get() { return m_filters.data(); }

private:
    lzma_options_lzma m_options = {};
    std::array<lzma_filter, 2> m_filters = {{{LZMA_FILTER_LZMA2, &m_options}, {LZMA_VLI_UNKNOWN, nullptr}}};
};

const uint8_t *encoderInput(QByteArrayView data)
{
    return reinterpret_cast<const uint8_t *>(data.data());
}

uint8_t *encoderOutput(QByteArray &out, size_t at = 0)
{
    return reinterpret_cast<uint8_t *>(out.data()) + at;
}

struct Encoded {
    QByteArray bytes;
    lzma_vli unpaddedSize = 0;
    lzma_vli uncompressedSize = 0;
};

std::optional<QByteArray> allocate(size_t size)
{
    try {
        return QByteArray(qsizetype(size), Qt::Uninitialized);
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

std::optional<Encoded> encodeBlock(const XZBlock &block, const LiteralModel &model)
{
    EncoderFilters filters(block, model);
    lzma_block header = {};
    header.check = Check;
    header.filters = filters.get();
    const size_t size = size_t(block.data.size());
    std::optional<QByteArray> out = allocate(lzma_block_buffer_bound(size));
    size_t written = 0;
    if (!out
        || lzma_block_buffer_encode(&header, nullptr, encoderInput(block.data), size, encoderOutput(*out),
                                    &written, size_t(out->size()))
            != LZMA_OK)
        return std::nullopt;
    out->resize(qsizetype(written));
    out->squeeze();
    return Encoded{std::move(*out), lzma_block_unpadded_size(&header), header.uncompressed_size};
}

// The model that makes the middle of the block smallest.
std::optional<LiteralModel> bestModel(const XZBlock &block)
{
    const std::span<const LiteralModel> models = modelsOf(block.content);
    if (models.size() == 1)
        return models.front();
    const qsizetype length = std::min(block.data.size(), SampleSize);
    const XZBlock sample{block.data.sliced((block.data.size() - length) / 2, length), block.content};
    std::optional<LiteralModel> best;
    qsizetype least = 0;
    for (const LiteralModel &model : models) {
        const std::optional<Encoded> encoded = encodeBlock(sample, model);
        if (!encoded)
            return std::nullopt;
        if (best && encoded->bytes.size() >= least)
            continue;
        best = model;
        least = encoded->bytes.size();
    }
    return best;
}

// Header, blocks, index and footer in a row; nothing when one of the blocks is missing or memory runs out.
std::optional<QByteArray> assemble(const std::vector<std::optional<Encoded>> &blocks)
{
    const auto end = [](lzma_index *built) { lzma_index_end(built, nullptr); };
    const std::unique_ptr<lzma_index, decltype(end)> index(lzma_index_init(nullptr));
    for (const auto &block : blocks) {
        if (!index || !block
            || lzma_index_append(index.get(), nullptr, block->unpaddedSize, block->uncompressedSize)
                != LZMA_OK)
            return std::nullopt;
    }
    if (!index)
        return std::nullopt;
    lzma_stream_flags flags = {};
    flags.backward_size = lzma_index_size(index.get());
    flags.check = Check;
    std::optional<QByteArray> stream = allocate(lzma_index_file_size(index.get()));
    if (!stream || lzma_stream_header_encode(&flags, encoderOutput(*stream)) != LZMA_OK)
        return std::nullopt;
    size_t at = LZMA_STREAM_HEADER_SIZE;
    for (const auto &block : blocks) {
        std::ranges::copy(block->bytes, stream->begin() + qsizetype(at));
        at += size_t(block->bytes.size());
    }
    if (lzma_index_buffer_encode(index.get(), encoderOutput(*stream), &at, size_t(stream->size())) != LZMA_OK
        || lzma_stream_footer_encode(&flags, encoderOutput(*stream, at)) != LZMA_OK)
        return std::nullopt;
    return stream;
}

qint64 quickSize(QByteArrayView data)
{
    std::optional<QByteArray> out = allocate(lzma_stream_buffer_bound(size_t(data.size())));
    size_t written = 0;
    if (!out
        || lzma_easy_buffer_encode(0, LZMA_CHECK_NONE, nullptr, encoderInput(data), size_t(data.size()),
                                   encoderOutput(*out), &written, size_t(out->size()))
            != LZMA_OK)
        return data.size();
    return qint64(written);
}

} // namespace

std::optional<QByteArray> compressXZBlocks(std::span<const XZBlock> blocks, qint64 memory)
{
    std::vector<qint64> costs;
    for (const XZBlock &block : blocks) {
        EncoderFilters filters(block, modelsOf(block.content).front());
        costs.push_back(qint64(lzma_raw_encoder_memusage(filters.get())));
    }
    std::vector<std::optional<Encoded>> encoded(blocks.size());
    const auto encodeOne = [&blocks, &encoded](size_t i) {
        if (const std::optional<LiteralModel> model = bestModel(blocks[i]))
            encoded[i] = encodeBlock(blocks[i], *model);
    };
    runJobs(costs, encodeOne, memory);
    return assemble(encoded);
}

std::optional<QByteArray> compressXZ(QByteArrayView data)
{
    const XZBlock block{data};
    return compressXZBlocks(std::span(&block, data.isEmpty() ? 0 : 1), std::numeric_limits<qint64>::max());
}

qint64 estimateXZ(QByteArrayView data)
{
    constexpr qsizetype piece = 1 << 16;
    constexpr qsizetype pieces = 64;
    if (data.size() <= 2 * piece * pieces)
        return quickSize(data);
    QByteArray sample;
    const qsizetype step = data.size() / pieces;
    for (qsizetype i = 0; i < pieces; ++i)
        sample += data.sliced(i * step, piece);
    return qint64(double(quickSize(sample)) * double(data.size()) / double(sample.size()));
}

} // namespace zel
