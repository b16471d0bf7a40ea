// What a check found, as the flows read it. Each of these is read from the map that came from the server or
// the host where it enters, once; from there on a misspelled key cannot compile. docs/update-protocol.md
// describes the keys.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>

#include <optional>

namespace zel {

/// The keys of update records, patch entries, check results, configurations and requests: they mean the same
/// in each, and are spelled here alone.
namespace key {
inline constexpr QLatin1String Arch("arch");
inline constexpr QLatin1String Beta("beta");
inline constexpr QLatin1String Build("build");
inline constexpr QLatin1String Builds("builds");
inline constexpr QLatin1String Expires("expires");
inline constexpr QLatin1String File("file");
inline constexpr QLatin1String Format("format");
inline constexpr QLatin1String Hash("hash");
inline constexpr QLatin1String HideChecking("hidechecking");
inline constexpr QLatin1String History("history");
inline constexpr QLatin1String HistorySHA256("historysha256");
inline constexpr QLatin1String Html("html");
inline constexpr QLatin1String Identifier("identifier");
inline constexpr QLatin1String Issued("issued");
inline constexpr QLatin1String Log("log");
inline constexpr QLatin1String Major("major");
inline constexpr QLatin1String Minor("minor");
inline constexpr QLatin1String Mode("mode");
inline constexpr QLatin1String Model("model");
inline constexpr QLatin1String Os("os");
inline constexpr QLatin1String Patch("patch"); // of a check result the entry, of a version a number
inline constexpr QLatin1String Patches("patches");
inline constexpr QLatin1String PatchOnly("patchonly");
inline constexpr QLatin1String Path("path");
inline constexpr QLatin1String Platform("platform");
inline constexpr QLatin1String Requires("requires");
inline constexpr QLatin1String Server("server");
inline constexpr QLatin1String SHA256("sha256");
inline constexpr QLatin1String Sheet("sheet");
inline constexpr QLatin1String Signed("signed");
inline constexpr QLatin1String Signers("signers");
inline constexpr QLatin1String Size("size");
inline constexpr QLatin1String Threshold("threshold");
inline constexpr QLatin1String Update("update");
inline constexpr QLatin1String Url("url");
inline constexpr QLatin1String Version("version");
} // namespace key

/// What a client reads of a check's reply at most; of a longer one it reads nothing.
struct FeedLimits {
    static constexpr qint64 Bytes = 4 << 20;
    static constexpr qint64 Records = 10'000;
    static constexpr qint64 Values = 200'000; ///< records as long as the protocol makes them have fewer
};

/// A file that the server offers, and what it is known by. Of a value of a type that makes no sense there is
/// as much left as makes every comparison with it fail.
struct OfferedFile {
    qint64 build = 0; ///< by `integerValue`
    QString file; ///< where it is: an address
    std::optional<QString> hash; ///< MD5; nothing where it is missing or no text
    std::optional<QString> sha256; ///< null where it is no text; nothing where it is missing
    std::optional<qint64> size; ///< in bytes; -1 where that is no size; nothing where it is missing
    QVariantMap received = {}; ///< all that came, unknown keys, too: what hosts are handed and logs show

    /// What clients compare the file with, as a feed has it: "file", "hash", "sha256" and "size".
    void announceIn(QJsonObject &entry) const;
};

/// A bundle patch. `build` is the build that it starts from.
struct PatchEntry : OfferedFile {
    qint64 format = 1; ///< of the patch file; 0 where that is no number
    QStringList requirements =
        {}; ///< what a reader must know besides; null ones where that is no list of texts

    static PatchEntry fromMap(const QVariantMap &map);
    QJsonObject toJson() const;
};

/// A build and its full archive. `build` is the build that is offered.
struct UpdateRecord : OfferedFile {
    struct System {
        qint64 majorVersion = 0;
        qint64 minorVersion = 0;
        qint64 patchVersion = 0;
    };

    QString version = {}; ///< for people
    QString shownBuild = {}; ///< the build as it is written, for people
    QString history = {}; ///< address of the release notes
    std::optional<System> platform = {}; ///< the oldest system that the build runs on; nothing: any
    std::optional<QString> arch = {}; ///< null where it is no text, and suits nobody then; nothing: any
    bool isBeta = false; ///< by the key's presence, as the next one
    bool isPatchOnly = false; ///< offered only where one of the patches starts from what is installed
    QList<PatchEntry> patches = {}; ///< in the record's order, without what is no object

    // Of signed records. What is missing, or of another type, is null or 0, and accepted nowhere.
    QString identifier = {}; ///< of the application
    QList<qint64> builds = {}; ///< all that were signed with it; only `SignedRecord` reads them
    QString historySHA256 = {}; ///< of the release notes
    qint64 issued = 0; ///< when it was signed: seconds since 1970, UTC
    qint64 expires = 0; ///< from when on it is worth nothing; likewise

    static UpdateRecord fromMap(const QVariantMap &map);

    /// The record with addresses that stand by themselves, resolved against the one that it came from, in
    /// `received` too.
    UpdateRecord resolvedAgainst(const QUrl &base) const;

    /// Of a record that is made here, for a feed: what was `received` is not looked at.
    QJsonObject toJson() const;
};

/// What a check hands to the host, and what the host hands back to show and install it.
struct CheckResult {
    std::optional<UpdateRecord> update = {};
    std::optional<PatchEntry> patch = {};

    /// When the record was signed that decided the check, whether it is offered or not.
    std::optional<qint64> issued = {};

    /// A value that is no map is read as an empty one: an offer, but of nothing that could be had.
    static CheckResult fromMap(const QVariantMap &map);

    /// With everything that the server sent.
    QVariantMap toMap() const;

    /// The address of the release notes; an invalid one where there are none.
    QUrl historyUrl() const;

    bool isEmpty() const { return !update && !patch; }
};

/// A check result of the host's without its patch; all else stays as it stands.
QVariantMap withoutPatch(QVariantMap result);

/// A check result with release notes. Null ones leave it as it is.
QVariantMap withNotes(QVariantMap result, const QByteArray &notes);
bool hasNotes(const QVariantMap &result);

} // namespace zel
