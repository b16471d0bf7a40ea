// Which signers are accepted.
#pragma once

#include "common/HostConfig.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace zel {

/// The signers that are accepted, by the SHA-256 fingerprints of their certificates. Nothing stands for
/// anyone; a list accepts exactly those it names, so that an empty one, or one of texts that are no
/// fingerprints, accepts nobody.
using SignerPins = std::optional<QStringList>;

/// A SHA-256 fingerprint as 64 lower-case hexadecimal digits. Read are the forms that people have: pairs of
/// digits in any case, bare or with a colon or a blank between them, and the whole line that `openssl x509
/// -fingerprint -sha256` prints. Nothing for any other text.
std::optional<QString> normalFingerprint(const QString &text);

/// The fingerprints under "signers" in the form that `verifySeal` takes; nothing where the key is missing,
/// which alone means that anyone may have signed. Read are texts and lists or sets of texts (QString,
/// QByteArray, QStringList, QByteArrayList, QVariantList, QJsonArray, QJsonValue, QSet ...), each text one
/// fingerprint as `normalFingerprint` reads it, or several in lines or between commas; a QByteArray of 32
/// bytes is a digest as it is. What is no SHA-256 fingerprint is named in the log and left out, so that a
/// value that cannot be read at all gives an empty list, which accepts nobody.
SignerPins pinnedSigners(const HostConfig &config);

} // namespace zel
