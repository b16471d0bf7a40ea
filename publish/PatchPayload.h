// The payload of a patch of format 2: where each part of what the commands need lies, and in which block.
#pragma once

#include "install/PatchManifest.h"
#include "XZWriter.h"

#include <QByteArray>
#include <QString>

#include <vector>

namespace zel {

/// What a command needs: a whole file, or a move delta.
struct PayloadItem {
    QString path; ///< of the file that comes of it
    QByteArray bytes;
    bool isDelta = false;
};

struct PatchPayload {
    QByteArray bytes;
    std::vector<XZBlock> blocks; ///< parts of `bytes`, in a row
    std::vector<std::vector<PatchSlice>> slices; ///< of each item
};

/// Lays items out: equal ones once, the parts of deltas by what they hold, in blocks across all files, and
/// files of one kind beside each other. The same items give the same bytes. Throws std::bad_alloc.
PatchPayload layOut(const std::vector<PayloadItem> &items);

} // namespace zel
