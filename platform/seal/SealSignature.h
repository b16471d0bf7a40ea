// Detached CMS signatures (RFC 5652) over a seal's list of items.
#pragma once

#include "common/ZELError.h"
#include "SealSigners.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <openssl/types.h>

namespace zel {

struct SealSigner {
    QString subject; ///< as "CN = Maker, O = ..."
    QString fingerprint; ///< SHA-256 of the certificate, lower-case hexadecimal: what pins are made of

    bool operator==(const SealSigner &) const = default;
};

/// A private key with its certificate. Signing with one object is for one thread at a time.
class Signer
{
public:
    /// Reads both from PEM files; an error when one cannot be read, the key has a passphrase or is weak (see
    /// `verifySignature`), or the certificate is not that of the key.
    ZELError load(const QString &keyFile, const QString &certificateFile);

    /// Signs with SHA-256; `signature` receives the CMS structure in DER, with the certificate inside.
    ZELError sign(const QByteArray &content, QByteArray &signature) const;

private:
    std::shared_ptr<EVP_PKEY> m_key;
    std::shared_ptr<X509> m_certificate;
};

/// No error when `signature` is a detached CMS signature in DER over `content` that has one to eight signers,
/// each with its certificate inside, with SHA-2 as digest and with a key of RSA (2048 to 8192 bits, exponent
/// of 32 bits or less) or of an elliptic curve (224 to 521 bits), all of which verify. The certificates'
/// chain, purpose and dates are not looked at. Where signers are pinned, one signer at least must be among
/// them. `signersLeft` counts down the signers that may still be looked at, for all signatures that are
/// verified with it. Safe from any thread.
ZELError verifySignature(const QByteArray &content, const QByteArray &signature,
                         const SignerPins &pins = std::nullopt, int *signersLeft = nullptr);

/// Those whose certificates a signature in DER names as its signers; none where it cannot be read. Says
/// nothing about whether they made it: `verifySignature` does. Safe from any thread.
QList<SealSigner> namedSigners(const QByteArray &signature);

} // namespace zel
