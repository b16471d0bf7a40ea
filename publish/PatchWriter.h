// The bundle patch file, put together. docs/bundle-patch-format.md describes it; install/PatchFile.h reads
// it.
#pragma once

#include "install/PatchFile.h"
#include "XZWriter.h"

#include <QJsonValue>

#include <vector>

namespace zel {

/// A command as it stands in a manifest.
QJsonValue manifestEntry(const PatchCommand &command);

/// The payload of format 1 in blocks: the parts of large deltas (control, differences, extra bytes) by
/// themselves, for they have little in common, and everything small in a row together. No block is larger
/// than 32 MiB, so that several processors share a large one. The commands' slices follow each other and
/// cover the payload.
std::vector<XZBlock> payloadBlocks(const std::vector<PatchCommand> &commands, QByteArrayView payload);

/// What a reader of the format must know besides to perform the commands.
QStringList requirementsOf(const std::vector<PatchCommand> &commands);

/// A whole patch file of a manifest and the blocks of a payload. An error when memory runs out, and where a
/// reader would refuse the commands. The file's size is never one whose hash is empty. `memory` bounds what
/// compressing takes besides them, as for `compressXZBlocks`.
ZELError encodePatchFile(const PatchManifest &manifest, std::span<const XZBlock> blocks, qint64 memory,
                         QByteArray &result);

} // namespace zel
