#include "PatchBudget.h"

#include "delta/deltaformat.h"
#include "platform/FileContents.h"

#include <algorithm>

namespace zel {

namespace {

constexpr qint64 DiskBlock = 4096;

/// The size of the file that a slice gives.
qint64 outcome(const PatchCommand &command, QByteArrayView slice)
{
    if (command.action != PatchAction::Patch)
        return slice.size();
    if (slice.size() < qsizetype(DeltaHeaderSize))
        return 0;
    const std::span header(reinterpret_cast<const unsigned char *>(slice.data()), DeltaHeaderSize);
    // What claims more is corrupt, which is found before anything is written.
    return std::clamp<qint64>(deltaIntegerAt(header, NewSizeOffset), 0, 2 * slice.size());
}

bool makesFolders(PatchAction action)
{
    return action == PatchAction::AddDirectory || action == PatchAction::Add;
}

/// How many names of a path are not those that the path before begins with, too: no fewer than it adds folders.
qint64 newNames(QStringView path, QStringView before)
{
    const auto shared = std::mismatch(path.begin(), path.end(), before.begin(), before.end()).first;
    return std::count(shared, path.end(), QChar(u'/')) + 1;
}

} // namespace

ZELError judgeWrites(const PatchFile &patch, const QString &folder)
{
    const qint64 limit = 2 * qint64(patch.payload.size()) + SmallChange;
    qint64 used = 0;
    qint64 space = 0;
    QStringView before;
    for (const PatchCommand &command : patch.commands) {
        if (makesFolders(command.action)) {
            space += DiskBlock * newNames(command.path, before);
            before = command.path;
        }
        const bool sliced = command.action == PatchAction::Add || command.action == PatchAction::Patch;
        const auto slice = sliced ? patch.slice(command) : std::nullopt;
        if (!slice) // the command fails by itself
            continue;
        const qint64 size = outcome(command, *slice);
        used += std::max<qint64>(size, slice->size());
        space += (size + DiskBlock - 1) / DiskBlock * DiskBlock;
        if (used > limit)
            return ZELError::withMessage(
                QStringLiteral("its commands use more than twice its payload of %1 bytes")
                    .arg(patch.payload.size()));
    }
    return requireSpace(folder, space);
}

} // namespace zel
