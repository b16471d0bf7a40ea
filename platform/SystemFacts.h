// The machine's facts, as the update server is told them.
#pragma once

#include <QString>
#include <QStringList>

#include <compare>

namespace zel {

/// The word that the update server knows this build's processor by: "x86" on Intel, "arm" on ARM, else the
/// word that the build was configured with (ZEL_ARCHITECTURE_WORD).
QString architectureWord();

/// A system version; compared number by number. (`major` and `minor` are macros of the C library.)
struct SystemVersion {
    qint64 majorVersion = 0;
    qint64 minorVersion = 0;
    qint64 patchVersion = 0;

    friend auto operator<=>(const SystemVersion &, const SystemVersion &) = default;
};

/// The version of the running kernel.
SystemVersion systemVersion();

/// The numbers that a kernel release such as "6.1.0-13-amd64" begins with; those that are missing are 0.
SystemVersion parseSystemVersion(QStringView release);

/// The name of the machine's model, as its firmware or device tree tells it; null when neither does.
QString modelIdentifier();

/// The first of the files, in order, that names a model: its text up to a NUL, cut to 127 bytes, without
/// white space around it. Files that are missing, blank or not ASCII are passed over; null when there is no
/// other.
QString modelFromFiles(const QStringList &files);

} // namespace zel
