// What lies in one block is compressed together, so that files which resemble each other belong into one, and
// what does not resemble them into others: columns of numbers, corrections, and bytes that are like the
// files' own are modelled each by itself (XZWriter.h). Hundreds of small deltas are worth a block for each
// kind, as large ones are; for a few small ones it would cost more than it saves.
//
// Files are sorted by the end of their names, then by the names: what one compiler made, and what is in one
// language, comes together.
#include "PatchPayload.h"

#include "move/moveformat.h"

#include <QHash>

#include <algorithm>
#include <array>
#include <numeric>
#include <tuple>

namespace zel {

namespace {

constexpr qsizetype LargestBlock = qsizetype(32) << 20;
constexpr qsizetype SmallDelta = 96; // a further slice in the manifest would cost more than it saves
constexpr std::array Kinds = {XZContent::Numbers, XZContent::Pairs, XZContent::Bytes};

struct Part {
    QByteArrayView bytes;
    XZContent kind;
};

std::vector<Part> partsOf(const PayloadItem &item)
{
    const QByteArrayView bytes(item.bytes);
    const std::span delta(reinterpret_cast<const unsigned char *>(bytes.data()), size_t(bytes.size()));
    const auto streams = item.isDelta && bytes.size() >= SmallDelta ? moveStreams(delta) : std::nullopt;
    if (!streams)
        return {{bytes, XZContent::Bytes}};
    const auto corrections = qsizetype(streams->corrections);
    const auto inserts = qsizetype(streams->inserts);
    return {{bytes.first(corrections), XZContent::Numbers},
            {bytes.sliced(corrections, inserts - corrections), XZContent::Pairs},
            {bytes.sliced(inserts), XZContent::Bytes}};
}

auto sortKey(const QString &path)
{
    const QString name = path.section(u'/', -1);
    return std::tuple(name.section(u'.', -1), name, path);
}

// Each distinct item once, by what its file is called.
std::vector<size_t> distinct(const std::vector<PayloadItem> &items, std::vector<size_t> &standIns)
{
    QHash<QByteArrayView, size_t> known;
    std::vector<size_t> order;
    standIns.resize(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        const auto equal = known.constFind(items[i].bytes);
        standIns[i] = equal == known.constEnd() ? i : *equal;
        if (equal != known.constEnd())
            continue;
        known.insert(items[i].bytes, i);
        order.push_back(i);
    }
    std::ranges::sort(order, {}, [&items](size_t i) { return sortKey(items[i].path); });
    return order;
}

// A block for what follows `start`, in pieces that several processors share.
void addBlocks(PatchPayload &payload, qsizetype start, XZContent kind)
{
    const QByteArrayView run = QByteArrayView(payload.bytes).sliced(start);
    const qsizetype count = (run.size() + LargestBlock - 1) / LargestBlock;
    for (qsizetype i = 0; i < count; ++i) {
        const qsizetype from = run.size() * i / count;
        payload.blocks.push_back({run.sliced(from, run.size() * (i + 1) / count - from), kind});
    }
}

} // namespace

PatchPayload layOut(const std::vector<PayloadItem> &items)
{
    PatchPayload payload;
    std::vector<size_t> standIns;
    const std::vector<size_t> order = distinct(items, standIns);
    payload.slices.resize(items.size());
    payload.bytes.reserve(
        std::accumulate(order.begin(), order.end(), qsizetype(0),
                        [&](qsizetype sum, size_t i) { return sum + items[i].bytes.size(); }));
    for (const XZContent kind : Kinds) {
        const qsizetype start = payload.bytes.size();
        for (const size_t i : order) {
            for (const Part &part : partsOf(items[i])) {
                if (part.kind != kind || (part.bytes.isEmpty() && !payload.slices[i].empty()))
                    continue;
                payload.slices[i].push_back({payload.bytes.size(), part.bytes.size()});
                payload.bytes += part.bytes;
            }
        }
        addBlocks(payload, start, kind);
    }
    for (size_t i = 0; i < items.size(); ++i)
        payload.slices[i] = payload.slices[standIns[i]];
    return payload;
}

} // namespace zel
