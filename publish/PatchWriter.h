// How a payload is divided for compression.
#pragma once

#include "install/PatchFile.h"
#include "xz/XZBlocks.h"

#include <vector>

namespace zel {

/// The payload in blocks: the parts of large deltas (control, differences, extra bytes) by themselves, for they have
/// little in common, and everything small in a row together. No block is larger than 32 MiB, so that several
/// processors share a large one. The commands' slices follow each other and cover the payload.
std::vector<XZBlock> payloadBlocks(const std::vector<PatchCommand> &commands, QByteArrayView payload);

} // namespace zel
