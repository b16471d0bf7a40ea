// The bundle patch file, taken apart. docs/bundle-patch-format.md describes it.
#pragma once

#include "ZELError.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

class QJsonValue;

namespace zel {

enum class PatchAction { None, DeleteSymlink, CreateSymlink, Delete, AddDirectory, Add, Patch };

/// The action's word in a manifest; empty for None.
QLatin1String wordOf(PatchAction action);

/// One command of a manifest. A command performs one action: of the words in its "actions", the first in the order
/// of the enumeration above; with none of them it does nothing.
struct PatchCommand {
    PatchAction action = PatchAction::None;
    QString path;
    QString symlink;
    qint64 position = 0;
    qint64 length = 0;
    std::optional<QString> hash; ///< missing is not the same as empty: a missing hash matches nothing

    static PatchCommand fromJson(const QJsonValue &value);
    QJsonValue toJson() const;
};

struct PatchFile {
    static constexpr qsizetype HeaderSize = 32;
    static constexpr qint64 ManifestLimit = qint64(256) << 20; ///< bytes of the manifest, decompressed
    static constexpr qint64 PayloadLimit = qint64(4) << 30; ///< bytes of the payload, decompressed

    std::vector<PatchCommand> commands; ///< none when the manifest is not JSON or holds no "commands"
    QByteArray payload;
    qint64 manifestSize = 0; ///< bytes in the file
    qint64 payloadSize = 0; ///< bytes in the file

    /// Reads and decompresses a patch file. An error when the file cannot be read, is shorter than its header, states
    /// a manifest length that is negative or runs past its end, or when the manifest or the payload does not
    /// decompress within the limits. Peak memory: the file, the manifest and the payload, and the decoders
    /// (`decompressXZ`). Works on all processors.
    static ZELError read(const QString &path, PatchFile &result);

    /// The part of the payload that a command names; nothing when it lies outside.
    std::optional<QByteArrayView> slice(const PatchCommand &command) const;

    /// A whole patch file of commands and a payload, which their slices cover one after the other; nothing when
    /// memory runs out. Its size is never one whose hash is empty. `memory` bounds what compressing takes besides them, as for `compressXZBlocks`.
    static std::optional<QByteArray> encode(const std::vector<PatchCommand> &commands, QByteArrayView payload,
                                            qint64 memory);
};

} // namespace zel
