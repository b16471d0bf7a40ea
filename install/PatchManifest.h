// The manifest of a bundle patch: which commands build the new bundle. docs/bundle-patch-format.md describes
// it.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

class QJsonObject;

namespace zel {

enum class PatchAction { None, DeleteSymlink, CreateSymlink, Delete, AddDirectory, Add, Patch, Copy, Mode };

/// The action's word in a manifest; empty for None.
QLatin1String wordOf(PatchAction action);

/// Whether an action builds a file, replacing what is there.
bool buildsFile(PatchAction action);

/// A part of the payload.
struct PatchSlice {
    qint64 position = 0;
    qint64 length = 0;

    bool operator==(const PatchSlice &) const = default;
};

/// One command of a manifest. A command performs one action: of the words in its "actions", the first in the
/// order of the enumeration above; with none of them it does nothing. Format 1 knows no word behind "patch".
struct PatchCommand {
    PatchAction action = PatchAction::None;
    QString path;
    QString symlink;
    std::vector<PatchSlice> slices; ///< what lies in them makes the bytes, in this order; one in format 1
    std::optional<QString> hash; ///< missing is not the same as empty: a missing hash matches nothing

    // From format 2 on.
    QString from; ///< the old bundle's file that "patch" and "copy" start from: "path" unless it is given
    std::optional<int> mode; ///< permission bits; of "mode" always there
    std::optional<QString> sha256; ///< of the built file; of "patch" and "copy" always there
    std::optional<qint64> size; ///< of the file that "patch" and "copy" build, in bytes; always there
};

struct PatchManifest {
    static constexpr qint64 SizeLimit = qint64(16) << 20; ///< bytes of the JSON text
    static constexpr qint64 CommandLimit = 200'000;
    static constexpr qint64 NameLimit = 500'000; ///< names in all paths of the commands
    static constexpr qsizetype SliceLimit = 4; ///< slices of a command
    static constexpr qint64 FileLimit = qint64(4) << 30; ///< bytes of a file that is built
    static constexpr qint64 DeltaFileLimit =
        (qint64(2) << 30) - 1; ///< of one that comes of a delta, or its base

    int format = 1;
    QStringList requirements; ///< "requires": what a reader of this format must know besides

    /// Without the guard of format 2. None when the manifest is not JSON or holds no "commands".
    std::vector<PatchCommand> commands;

    /// Whether patches of a format that require such words can be read here.
    static bool isKnown(qint64 format, const QStringList &requirements);

    /// Reads a manifest's JSON text. An error beyond the limits, where it is of a format or requires
    /// something that is unknown here, and where a value of format 2 is missing or of a type that makes no
    /// sense.
    static ZELError read(const QByteArray &json, PatchManifest &result);

    /// An error when there are more commands, or more names in their paths, than a patch may have.
    static ZELError judge(const std::vector<PatchCommand> &commands);
};

} // namespace zel
