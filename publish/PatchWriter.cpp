#include "PatchWriter.h"

#include "delta/deltainteger.h"
#include "delta/deltalayout.h"

#include <algorithm>

namespace zel {

namespace {

constexpr qsizetype MiB = qsizetype(1) << 20;
constexpr qsizetype SmallPart = 96 << 10; // below this a block of its own saves less than it costs
constexpr qsizetype LargestBlock = 32 * MiB;

/// How many blocks a part becomes. A block does not see what the one before it held; differences hardly miss it, and
/// compressing them takes longest, so that all processors had better take part, and end together: large ones are
/// halved, small ones cut into four.
qsizetype pieces(const XZBlock &part)
{
    const qsizetype size = part.data.size();
    const qsizetype count = (size + LargestBlock - 1) / LargestBlock;
    if (part.content != XZContent::Sparse || size < 4 * MiB)
        return count;
    return std::max<qsizetype>(count, size <= 16 * MiB ? 4 : 2);
}

/// The parts of a delta, or of anything else the whole.
std::vector<XZBlock> partsOf(const PatchCommand &command, QByteArrayView slice)
{
    if (command.action != PatchAction::Patch || slice.size() < qsizetype(headerSize))
        return {{slice, XZContent::Bytes}};
    const std::span header(reinterpret_cast<const unsigned char *>(slice.data()), headerSize);
    const qint64 room = slice.size() - qint64(headerSize);
    const qint64 control = deltaIntegerAt(header, controlLengthOffset);
    const qint64 diff = deltaIntegerAt(header, diffLengthOffset);
    if (control < 0 || diff < 0 || control > room || diff > room - control)
        return {{slice, XZContent::Bytes}};
    const qint64 diffStart = qint64(headerSize) + control;
    return {{slice.first(diffStart), XZContent::Records},
            {slice.sliced(diffStart, diff), XZContent::Sparse},
            {slice.sliced(diffStart + diff), XZContent::Bytes}};
}

class Division
{
public:
    void add(const XZBlock &part)
    {
        if (part.data.isEmpty())
            return;
        if (part.data.size() < SmallPart) {
            extendRun(part);
            return;
        }
        endRun();
        const qsizetype count = pieces(part);
        for (qsizetype i = 0; i < count; ++i) {
            const qsizetype start = part.data.size() * i / count;
            m_blocks.push_back(
                {part.data.sliced(start, part.data.size() * (i + 1) / count - start), part.content});
        }
    }

    std::vector<XZBlock> blocks()
    {
        endRun();
        return m_blocks;
    }

private:
    void extendRun(const XZBlock &part)
    {
        if (m_run.data.size() + part.data.size() > LargestBlock)
            endRun();
        if (m_run.data.isEmpty())
            m_run = part;
        else
            m_run = {QByteArrayView(m_run.data.begin(), part.data.end()), XZContent::Bytes};
    }

    void endRun()
    {
        if (!m_run.data.isEmpty())
            m_blocks.push_back(m_run);
        m_run = {};
    }

    std::vector<XZBlock> m_blocks;
    XZBlock m_run; // small parts in a row
};

} // namespace

std::vector<XZBlock> payloadBlocks(const std::vector<PatchCommand> &commands, QByteArrayView payload)
{
    Division division;
    for (const PatchCommand &command : commands) {
        if (command.action != PatchAction::Add && command.action != PatchAction::Patch)
            continue;
        for (const XZBlock &part : partsOf(command, payload.sliced(command.position, command.length)))
            division.add(part);
    }
    return division.blocks();
}

} // namespace zel
