#include "PatchWriter.h"

#include "delta/deltaformat.h"
#include "install/MD5Digest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <new>

// A patch file is a header of 32 bytes with the manifest's length in digits, the manifest and the payload,
// each an xz stream of its own. What is compressed decides its size, and how it is cut decides how long that
// takes:
//
//  - One stream of everything would keep one processor busy. So the payload is cut into blocks that several
//    compress side by side. What a block cannot see it cannot refer to; cutting where contents change costs
//    least.
//  - A delta's three parts have nothing in common: rows of numbers, differences that are mostly zeros, and
//    plain new bytes. Each is modelled for what it holds (XZWriter.h), which saves more than one model for
//    all.
//  - Small things are the exception. A block's header and a model that starts anew cost more than they save
//    there, so that everything small in a row makes one block, whatever it holds.
//
// The limits are the reader's (PatchManifest::judge): what it would refuse is not written.

namespace zel {

namespace {

constexpr qsizetype MiB = qsizetype(1) << 20;
constexpr qsizetype SmallPart = 96 << 10; // below this a block of its own saves less than it costs
constexpr qsizetype LargestBlock = 32 * MiB;

// How many blocks a part becomes. A block does not see what the one before it held; differences hardly miss
// it, and compressing them takes longest, so that all processors had better take part, and end together:
// large ones are halved, small ones cut into four.
qsizetype pieces(const XZBlock &part)
{
    const qsizetype size = part.data.size();
    const qsizetype count = (size + LargestBlock - 1) / LargestBlock;
    if (part.content != XZContent::Sparse || size < 4 * MiB)
        return count;
    return std::max<qsizetype>(count, size <= 16 * MiB ? 4 : 2);
}

// The parts of a delta, or of anything else the whole.
std::vector<XZBlock> partsOf(const PatchCommand &command, QByteArrayView slice)
{
    if (command.action != PatchAction::Patch || slice.size() < qsizetype(DeltaHeaderSize))
        return {{slice, XZContent::Bytes}};
    const std::span header(reinterpret_cast<const unsigned char *>(slice.data()), DeltaHeaderSize);
    const qint64 room = slice.size() - qint64(DeltaHeaderSize);
    const qint64 control = deltaIntegerAt(header, ControlLengthOffset);
    const qint64 diff = deltaIntegerAt(header, DiffLengthOffset);
    if (control < 0 || diff < 0 || control > room || diff > room - control)
        return {{slice, XZContent::Bytes}};
    const qint64 diffStart = qint64(DeltaHeaderSize) + control;
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

bool usesPayload(PatchAction action)
{
    return action == PatchAction::Add || action == PatchAction::Patch;
}

QByteArrayView sliceOf(const PatchCommand &command, QByteArrayView payload)
{
    return payload.sliced(command.slices.at(0).position, command.slices.at(0).length);
}

// One number, or the list of several.
QJsonValue inEach(const PatchCommand &command, qint64 PatchSlice::*number)
{
    if (command.slices.size() == 1)
        return command.slices.front().*number;
    QJsonArray numbers;
    for (const PatchSlice &slice : command.slices)
        numbers.append(slice.*number);
    return numbers;
}

// A reader that knows format 1 alone must fail at the first command, before it performs one.
QJsonValue guard()
{
    PatchCommand command;
    command.action = PatchAction::Delete;
    return manifestEntry(command);
}

QByteArray textOf(const PatchManifest &manifest)
{
    QJsonObject object;
    QJsonArray list;
    if (manifest.format > 1) {
        object[QLatin1String("format")] = manifest.format;
        object[QLatin1String("requires")] = QJsonArray::fromStringList(manifest.requirements);
        list.append(guard());
    }
    for (const PatchCommand &command : manifest.commands)
        list.append(manifestEntry(command));
    object[QLatin1String("commands")] = list;
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// A file whose size is a multiple of `MD5Digest::ChunkSize` has no hash to check it by (MD5FromData.h), so a
// patch never has such a size: white space that means nothing is added to its manifest. It is uneven, since
// one blank after the other would add nothing to what is compressed.
std::optional<QByteArray> compressManifest(QByteArray json, qsizetype payloadSize)
{
    quint32 state = 1;
    std::optional<QByteArray> compressed = compressXZ(json);
    while (compressed
           && (PatchFile::HeaderSize + compressed->size() + payloadSize) % MD5Digest::ChunkSize == 0) {
        state = state * 1664525 + 1013904223;
        json += " \t\r\n"[state >> 30];
        compressed = compressXZ(json);
    }
    return compressed;
}

} // namespace

std::vector<XZBlock> payloadBlocks(const std::vector<PatchCommand> &commands, QByteArrayView payload)
{
    Division division;
    for (const PatchCommand &command : commands) {
        if (!usesPayload(command.action))
            continue;
        for (const XZBlock &part : partsOf(command, sliceOf(command, payload)))
            division.add(part);
    }
    return division.blocks();
}

QJsonValue manifestEntry(const PatchCommand &command)
{
    QJsonObject object{{QLatin1String("actions"), QJsonArray{wordOf(command.action)}},
                       {QLatin1String("path"), command.path}};
    if (command.action == PatchAction::CreateSymlink)
        object[QLatin1String("symlink")] = command.symlink;
    if (usesPayload(command.action)) {
        object[QLatin1String("position")] = inEach(command, &PatchSlice::position);
        object[QLatin1String("length")] = inEach(command, &PatchSlice::length);
    }
    if (command.hash)
        object[QLatin1String("hash")] = *command.hash;
    if (!command.from.isEmpty() && command.from != command.path)
        object[QLatin1String("from")] = command.from;
    if (command.mode)
        object[QLatin1String("mode")] = *command.mode;
    if (command.sha256)
        object[QLatin1String("sha256")] = *command.sha256;
    if (command.size)
        object[QLatin1String("size")] = *command.size;
    return object;
}

QStringList requirementsOf(const std::vector<PatchCommand> &commands)
{
    QStringList words;
    const auto moved = [](const PatchCommand &command) {
        return command.action == PatchAction::Copy
            || (command.action == PatchAction::Patch && command.from != command.path);
    };
    const auto hasDelta = [](const PatchCommand &command) { return command.action == PatchAction::Patch; };
    if (std::ranges::any_of(commands, hasDelta))
        words.append(QLatin1String("move-deltas"));
    if (std::ranges::any_of(commands, [](const PatchCommand &command) { return command.mode.has_value(); }))
        words.append(QLatin1String("modes"));
    if (std::ranges::any_of(commands, moved))
        words.append(QLatin1String("moved-files"));
    return words;
}

ZELError encodePatchFile(const PatchManifest &manifest, std::span<const XZBlock> blocks, qint64 memory,
                         QByteArray &result)
{
    if (const ZELError error = PatchManifest::judge(manifest.commands))
        return error;
    try {
        const QByteArray text = textOf(manifest);
        constexpr qsizetype blanks = 1024; // which may be added yet
        if (text.size() > PatchManifest::SizeLimit - blanks)
            return ZELError::withMessage(QStringLiteral("its list of commands takes more than 16 MiB"));
        const std::optional<QByteArray> second = compressXZBlocks(blocks, memory);
        const auto first = second ? compressManifest(text, second->size()) : std::nullopt;
        if (first) {
            result = QByteArray::number(first->size()).leftJustified(PatchFile::HeaderSize, '\0') + *first
                + *second;
            return {};
        }
    } catch (const std::bad_alloc &) {
    }
    return ZELError::withMessage(QStringLiteral("memory is exhausted"));
}

} // namespace zel
