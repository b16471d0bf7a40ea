// Which signers of a bundle are accepted.
#pragma once

#include <QString>
#include <QStringList>

#include <optional>

namespace zel {

/// The signers that are accepted, by the SHA-256 fingerprints of their certificates. Nothing stands for anyone; a list
/// accepts exactly those it names, so that an empty one, or one of texts that are no fingerprints, accepts nobody.
using SignerPins = std::optional<QStringList>;

/// A SHA-256 fingerprint as 64 lower-case hexadecimal digits. Read are the forms that people have: pairs of digits in
/// any case, bare or with a colon or a blank between them, and the whole line that `openssl x509 -fingerprint -sha256`
/// prints. Nothing for any other text.
std::optional<QString> normalFingerprint(const QString &text);

} // namespace zel
