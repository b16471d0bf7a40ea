#include "PayloadBlocks.h"

#include "deltainteger.h"
#include "deltalayout.h"

#include <algorithm>

namespace zel {

namespace {

constexpr qsizetype SmallPart = qsizetype(96) << 10; // below this a block of its own saves less than it costs
constexpr qsizetype LargestBlock = qsizetype(32) << 20;

qint64 headerField(QByteArrayView delta, size_t offset)
{
    const auto *const bytes = reinterpret_cast<const unsigned char *>(delta.data()) + offset;
    return decodeDeltaInteger(std::span<const unsigned char, deltaIntegerSize>(bytes, deltaIntegerSize));
}

/// The parts of a delta, or of anything else the whole.
std::vector<XZBlock> partsOf(const PatchCommand &command, QByteArrayView slice)
{
    if (command.action != PatchAction::Patch || slice.size() < qsizetype(headerSize))
        return {{slice, XZContent::Bytes}};
    const qint64 control = qint64(headerSize) + headerField(slice, controlLengthOffset);
    const qint64 diff = headerField(slice, diffLengthOffset);
    if (control < 0 || diff < 0 || control > slice.size() || diff > slice.size() - control)
        return {{slice, XZContent::Bytes}};
    return {{slice.first(control), XZContent::Records},
            {slice.sliced(control, diff), XZContent::Sparse},
            {slice.sliced(control + diff), XZContent::Bytes}};
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
        const qsizetype count = (part.data.size() + LargestBlock - 1) / LargestBlock;
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
