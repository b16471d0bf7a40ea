// Which signers are accepted.
#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace zel {

/// The signers that are accepted, by the SHA-256 fingerprints of their certificates: exactly those that are
/// named, so that an empty list, or one of texts that are no fingerprints, accepts nobody.
struct AcceptedSigners {
    AcceptedSigners(const QStringList &certificates = {}, qint64 howMany = 1)
        : fingerprints(certificates)
        , threshold(howMany)
    {
    }

    QStringList fingerprints; ///< in any form that `normalFingerprint` reads
    qint64 threshold; ///< how many of them, each with a key of its own, must have signed; below 1: nobody can
};

/// Nothing stands for anyone.
using SignerPins = std::optional<AcceptedSigners>;

/// A SHA-256 fingerprint as 64 lower-case hexadecimal digits. Read are the forms that people have: pairs of
/// digits in any case, bare or with a colon or a blank between them, and the whole line that `openssl x509
/// -fingerprint -sha256` prints. Nothing for any other text.
std::optional<QString> normalFingerprint(const QString &text);

} // namespace zel
