// The signers that a host's configuration pins.
#pragma once

#include "common/HostConfig.h"
#include "SealSigners.h"

namespace zel {

/// What "signers" and "threshold" say; nothing where both keys are missing, which alone means that anyone may
/// have signed. Read are texts and lists or sets of texts (QString, QByteArray, QStringList, QByteArrayList,
/// QVariantList, QJsonArray, QJsonValue, QSet ...), each text one fingerprint as `normalFingerprint` reads
/// it, or several in lines or between commas; a QByteArray of 32 bytes is a digest as it is. The text
/// "installed" stands for those who sealed the bundle under "path", as they are at this moment. What is
/// neither is named in the log and left out, so that a value that cannot be read at all gives an empty list,
/// which accepts nobody; so does a threshold that is no whole number above 0.
SignerPins pinnedSigners(const HostConfig &config);

} // namespace zel
