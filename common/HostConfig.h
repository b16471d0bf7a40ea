// The host's settings, as the flows read them.
#pragma once

#include <QVariantMap>

#include <optional>

namespace zel {

/// What a host's configuration map says. docs/host-guide.md describes the keys. What is sent to the server,
/// or has forms of its own, is kept as the host wrote it.
struct HostConfig {
    QString url = {}; ///< where checks go
    QString server = {}; ///< where logs go; empty: not set
    QString path = {}; ///< the installed bundle
    std::optional<QVariant> build = {}; ///< nothing where it is missing
    std::optional<QVariant> version = {}; ///< likewise
    std::optional<QVariant> signers = {}; ///< likewise; `pinnedSigners` reads it
    std::optional<QVariant> threshold = {}; ///< likewise
    std::optional<QVariant> issued = {}; ///< likewise; the latest "issued" that the host has seen
    bool acceptsBeta = false; ///< by the key's presence, whatever its value
    bool isInteractive = true; ///< "mode" is 0 or missing: a check shows its pages
    bool hostShowsWindow = false; ///< by the presence of "sheet" or "hidechecking"

    static HostConfig fromMap(const QVariantMap &map);

    /// Whether new builds must be somebody's: `pinnedSigners` tells whose.
    bool isPinned() const { return signers || threshold; }

    /// The installed build by `integerValue`; 0 where it is missing.
    qint64 buildNumber() const;

    /// These settings alone, for a thread of the updater's: what else a host has put into its map stays on
    /// its threads.
    HostConfig forDecision() const { return {.path = path, .build = build, .acceptsBeta = acceptsBeta}; }
    HostConfig forLog() const { return {.build = build, .version = version}; }
};

} // namespace zel
