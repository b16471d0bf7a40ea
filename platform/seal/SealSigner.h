// Who sealed a bundle.
#pragma once

#include <QList>
#include <QString>

namespace zel {

struct SealSigner {
    QString subject; ///< as "CN = Maker, O = ..."
    QString fingerprint; ///< SHA-256 of the certificate, lower-case hexadecimal: what pins are made of

    bool operator==(const SealSigner &) const = default;
};

/// Those whose certificates a bundle's seal names as its signers; none where there is no seal that can be read. Says
/// nothing about whether the seal is valid: `verifySeal` does. Safe from any thread.
QList<SealSigner> sealSigners(const QString &bundle);

} // namespace zel
