// What the commands of a patch carry, made of the files of two bundles.
#pragma once

#include "BundleTree.h"
#include "common/ZELError.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>
#include <vector>

namespace zel {

/// What one command carries: a whole file, or a delta and the hash of the file that it gives.
struct FileSlice {
    PatchAction action = PatchAction::Add;
    QByteArray bytes;
    std::optional<QString> hash;
};

/// Makes the slices of files side by side, one per processor, the costliest first, as long as what they need
/// together stays within `memory` bytes; a file that needs more is done alone. `progress` hears the path of
/// each file that is begun or goes on, and how many bytes of new files are done by then: one call at a time,
/// on any thread. Gives the slices in the order of `files`. After an error no more files are begun.
ZELError makeFileSlices(const QString &oldBundle, const QString &newBundle,
                        const std::vector<PlannedFile> &files, int format, qint64 memory,
                        const std::function<void(const QString &path, qint64 done)> &progress,
                        std::vector<FileSlice> &slices);

} // namespace zel
