// CMS signatures (RFC 5652): detached over a seal's list of items, or around an update record.
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
    /// `verifySignature`), the certificate is not that of the key, or is not a signer's today
    /// (SignerCertificate.h).
    ZELError load(const QString &keyFile, const QString &certificateFile);

    EVP_PKEY *key() const { return m_key.get(); }
    X509 *certificate() const { return m_certificate.get(); }

private:
    std::shared_ptr<EVP_PKEY> m_key;
    std::shared_ptr<X509> m_certificate;
};

/// Larger ones are refused unread, in bytes: a seal by eight signers takes an eighth of it.
constexpr qint64 MaxSignatureSize = 256 << 10;

/// Whether a signature holds what was signed.
enum class SignatureKind { Detached, Attached };

/// Signs with SHA-256, once for each of one to eight signers; `signature` receives the CMS structure in DER,
/// with the certificates inside.
ZELError signWith(const QList<Signer> &signers, const QByteArray &content, SignatureKind kind,
                  QByteArray &signature);

/// No error when `signature` is a detached CMS signature in DER over `content`, as data, that has one to
/// eight signers, each with its certificate inside, among no more than 16, with SHA-2 as digest and with a
/// key of RSA (2048 to 8192 bits, exponent of 32 bits or less) or of an elliptic curve (224 to 521 bits), all
/// of which verify. The certificates' chain is not looked at. Where signers are pinned, as many as their
/// threshold says must be among them, by certificates that were a signer's at the time that each signature
/// gives (SignerCertificate.h). `signersLeft` counts down the signers that may still be looked at, for all
/// signatures that are verified with it. Safe from any thread.
ZELError verifySignature(const QByteArray &content, const QByteArray &signature,
                         const SignerPins &pins = std::nullopt, int *signersLeft = nullptr);

/// As `verifySignature`, for a signature that holds what was signed, at `issued` (seconds since 1970, UTC).
ZELError verifyMessage(const QByteArray &message, const AcceptedSigners &accepted, qint64 issued);

/// What such a signature holds, whoever made it: nothing is verified. Null where it cannot be read.
QByteArray contentOf(const QByteArray &message);

/// Those whose certificates a signature in DER names as its signers; none where it cannot be read. Says
/// nothing about whether they made it: `verifySignature` does. Safe from any thread.
QList<SealSigner> namedSigners(const QByteArray &signature);

} // namespace zel
