// The bundle patch file, taken apart. docs/bundle-patch-format.md describes it; publish/PatchWriter.h writes
// it.
#pragma once

#include "base/SystemCalls.h"
#include "common/ZELError.h"
#include "platform/LargeBuffer.h"

#include <QByteArrayView>
#include <QString>

#include <optional>
#include <vector>

class QJsonValue;

namespace zel {

enum class PatchAction { None, DeleteSymlink, CreateSymlink, Delete, AddDirectory, Add, Patch };

/// The action's word in a manifest; empty for None.
QLatin1String wordOf(PatchAction action);

/// One command of a manifest. A command performs one action: of the words in its "actions", the first in the
/// order of the enumeration above; with none of them it does nothing.
struct PatchCommand {
    PatchAction action = PatchAction::None;
    QString path;
    QString symlink;
    qint64 position = 0;
    qint64 length = 0;
    std::optional<QString> hash; ///< missing is not the same as empty: a missing hash matches nothing

    static PatchCommand fromJson(const QJsonValue &value);
};

struct PatchFile {
    static constexpr qsizetype HeaderSize = 32;
    static constexpr qint64 ManifestLimit = qint64(16) << 20; ///< bytes of the manifest, decompressed
    static constexpr qint64 CommandLimit = 200'000;
    static constexpr qint64 NameLimit = 500'000; ///< names in all paths of the commands
    static constexpr qint64 PayloadLimit = qint64(4) << 30; ///< bytes of the payload, decompressed

    /// What reading depends on besides the file.
    struct Reading {
        qint64 payloadLimit(qint64 compressed) const;

        /// Bytes of the bundle that the patch starts from, where it is known.
        std::optional<qint64> oldBundle;

        /// A payload of more bytes goes to an unnamed file.
        qint64 memory = machineMemory() / 4;

        /// Where that is made; the temporary folder unless named.
        QString folder = {};
    };

    std::vector<PatchCommand> commands; ///< none when the manifest is not JSON or holds no "commands"
    QByteArrayView payload; ///< lives as long as the patch file
    qint64 manifestSize = 0; ///< bytes in the file
    qint64 payloadSize = 0; ///< bytes in the file

    /// Reads and decompresses a patch file. An error when the file cannot be read, is shorter than its
    /// header, states a manifest length that is negative or runs past its end, when the manifest or the
    /// payload does not decompress, and beyond the limits, which docs/bundle-patch-format.md gives. Peak
    /// memory: the file, 300 MiB for the worst manifest, the payload, and the decoders (`decompressXZ`).
    /// Works on all processors.
    static ZELError read(const QString &path, const Reading &reading, PatchFile &result);

    /// The part of the payload that a command names; nothing when it lies outside.
    std::optional<QByteArrayView> slice(const PatchCommand &command) const;

    /// An error when there are more commands, or more names in their paths, than a patch may have.
    static ZELError judgeCommands(const std::vector<PatchCommand> &commands);

private:
    LargeBuffer m_buffer; // the payload
};

} // namespace zel
