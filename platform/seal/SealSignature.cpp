// Signatures, made and verified by OpenSSL, which is asked for the mathematics alone. What makes a signature
// acceptable is decided here, before anything expensive is computed: a stranger's signature could name
// thousands of digests, certificates or signers, keys of any length, or digests that are broken, and the
// library would work through them all. Hence the order in `verify`: the outline of the structure, of which
// nothing is decoded until it is found to be small; then the keys, then the signatures themselves, and the
// pins last, over certificates whose signatures have verified. Without pins certificates are containers of
// keys and names and no more; with them SignerCertificate.h says what counts.
//
// Signers are counted by their keys. Two certificates of one key are one signer, or a publisher who pins an
// old certificate beside its renewal would let one stolen key reach a threshold of two.
#include "SealSignature.h"

#include "SignatureOutline.h"
#include "SignerCertificate.h"

#include <QFile>

#include <algorithm>
#include <ctime>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <vector>

namespace zel {

namespace {

constexpr qint64 MaxPemSize = 1 << 20;
constexpr int MaxSigners = 8; // and digests; a seal has one
constexpr int MaxCertificates = 16; // those of the signers, and what some tools put beside them

struct Free {
    void operator()(BIO *memory) const { BIO_free(memory); }
    void operator()(CMS_ContentInfo *cms) const { CMS_ContentInfo_free(cms); }
    void operator()(ASN1_TIME *time) const { ASN1_TIME_free(time); }
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_free(certificates); } // not what is in it
};
using Bio = std::unique_ptr<BIO, Free>;
using Cms = std::unique_ptr<CMS_ContentInfo, Free>;
using Time = std::unique_ptr<ASN1_TIME, Free>;
using Certificates = std::unique_ptr<STACK_OF(X509), Free>;

Bio readerOf(const QByteArray &bytes)
{
    return Bio(BIO_new_mem_buf(bytes.constData(), int(bytes.size())));
}

// None of the library's queued errors is left for the host to stumble over, whatever the outcome.
struct ErrorsTaken {
    ~ErrorsTaken() { ERR_clear_error(); }
};

ZELError failure(const QString &what)
{
    const ErrorsTaken taken;
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    return ZELError::withMessage(reason ? what + QLatin1String(" (") + QLatin1String(reason) + u')' : what);
}

ZELError readPem(const QString &path, QByteArray &pem)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return ZELError::withMessage(QLatin1String("cannot read ") + path + QLatin1String(": ")
                                     + file.errorString());
    pem = file.read(MaxPemSize);
    return {};
}

// Without it the library would ask for the passphrase on the terminal.
int noPassphrase(char *, int, int, void *)
{
    return -1;
}

bool isStrong(const X509_ALGOR *digest)
{
    switch (digest ? OBJ_obj2nid(digest->algorithm) : NID_undef) {
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
        return true;
    default:
        return false;
    }
}

// What the library would let pass, and work through.
ZELError checkOutline(const SignatureOutline &outline, bool isDetached, int mostSigners)
{
    const auto refusal = [](const char *why) {
        return ZELError::withMessage(QLatin1String("the signature ") + QLatin1String(why));
    };
    if (!outline.isWhole)
        return refusal("file is malformed");
    if (outline.content.isNull() != isDetached)
        return refusal(isDetached ? "is not detached" : "holds nothing");
    if (!outline.isOfData)
        return refusal("is over something else than data");
    if (outline.signers < 1)
        return refusal("has no signer");
    if (outline.signers > mostSigners)
        return refusal("has too many signers");
    if (outline.certificates > MaxCertificates)
        return refusal("has too many certificates");
    const bool isStrong =
        outline.otherDigests == 0 && outline.strongDigests >= 1 && outline.strongDigests <= MaxSigners;
    return isStrong ? ZELError() : refusal("is over a digest that is not SHA-2");
}

Cms decoded(const QByteArray &signature)
{
    const auto *at = reinterpret_cast<const unsigned char *>(signature.constData());
    return Cms(d2i_CMS_ContentInfo(nullptr, &at, long(signature.size())));
}

// What each signer says of itself: nobody else sees to it. A signer that signs no attributes has signed the
// content alone.
ZELError checkSigners(CMS_ContentInfo *cms)
{
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        CMS_SignerInfo *signer = sk_CMS_SignerInfo_value(signers, i);
        X509_ALGOR *digest = nullptr;
        CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digest, nullptr);
        if (!isStrong(digest))
            return failure(QStringLiteral("the signature is over a digest that is not SHA-2"));
        constexpr int alone = -3; // there is one attribute of the kind, with one value
        const auto *type = static_cast<const ASN1_OBJECT *>(
            CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_pkcs9_contentType), alone, V_ASN1_OBJECT));
        if (CMS_signed_get_attr_count(signer) >= 0 && (!type || OBJ_obj2nid(type) != NID_pkcs7_data))
            return failure(QStringLiteral("the signature is over something else than data"));
    }
    return {};
}

// Before anything is computed with them.
ZELError checkKeys(CMS_ContentInfo *cms)
{
    CMS_set1_signers_certs(cms, nullptr, 0); // finds each signer's certificate among those inside
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        EVP_PKEY *key = nullptr;
        CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), &key, nullptr, nullptr, nullptr);
        if (key && !canSign(key))
            return failure(
                QStringLiteral("the signer's key is too weak, too long, or of another kind than RSA and EC"));
    }
    return {};
}

// The time that a signer gives, if any.
const ASN1_TIME *signingTime(CMS_SignerInfo *signer)
{
    X509_ATTRIBUTE *attribute =
        CMS_signed_get_attr(signer, CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1));
    const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attribute, 0);
    const bool isTime = value && (value->type == V_ASN1_UTCTIME || value->type == V_ASN1_GENERALIZEDTIME);
    return isTime ? value->value.utctime : nullptr;
}

QStringList normalPins(const QStringList &fingerprints)
{
    QStringList pins;
    for (const QString &fingerprint : fingerprints) {
        if (const std::optional<QString> pin = normalFingerprint(fingerprint))
            pins.append(*pin);
    }
    return pins;
}

// Of a signature that verifies; signers whose own times count, unless one is given.
ZELError checkPins(CMS_ContentInfo *cms, const AcceptedSigners &accepted, const ASN1_TIME *issued)
{
    const QStringList pins = normalPins(accepted.fingerprints);
    std::vector<const X509 *> accountable; // one for each key
    ZELError unsuitable;
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        CMS_SignerInfo *signer = sk_CMS_SignerInfo_value(signers, i);
        X509 *certificate = nullptr;
        CMS_SignerInfo_get0_algs(signer, nullptr, &certificate, nullptr, nullptr);
        if (!certificate || !pins.contains(fingerprintOf(certificate)))
            continue;
        const auto hasItsKey = [certificate](const X509 *other) { return haveOneKey(certificate, other); };
        if (const ZELError error = checkSigner(certificate, issued ? issued : signingTime(signer)))
            unsuitable = error;
        else if (std::none_of(accountable.begin(), accountable.end(), hasItsKey))
            accountable.push_back(certificate);
    }
    if (accepted.threshold >= 1 && qint64(accountable.size()) >= accepted.threshold)
        return {};
    if (unsuitable)
        return unsuitable;
    if (accountable.empty())
        return ZELError::withMessage(QStringLiteral("the signer is not one of those that are pinned"));
    return ZELError::withMessage(QStringLiteral("%1 of the pinned signers signed, needed are %2")
                                     .arg(accountable.size())
                                     .arg(qMax(accepted.threshold, qint64(2))));
}

// Whether every signer's signature verifies: over `content`, or over what is inside where there is none.
// `cms` receives the structure, with each signer's certificate found.
ZELError verify(const QByteArray &signature, const QByteArray *content, int *signersLeft, Cms &cms)
{
    if (signature.size() > MaxSignatureSize)
        return failure(QStringLiteral("the signature is too large"));
    const SignatureOutline outline = SignatureOutline::of(signature);
    const int mostSigners = signersLeft ? qMin(MaxSigners, *signersLeft) : MaxSigners;
    if (const ZELError error = checkOutline(outline, content, mostSigners))
        return error;
    if (signersLeft)
        *signersLeft -= outline.signers;
    cms = decoded(signature);
    if (!cms)
        return failure(QStringLiteral("the signature file is malformed"));
    if (const ZELError error = checkSigners(cms.get()))
        return error;
    if (const ZELError error = checkKeys(cms.get()))
        return error;
    constexpr unsigned int flags = CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY;
    const Bio reader = content ? readerOf(*content) : Bio();
    if (content) {
        return CMS_verify(cms.get(), nullptr, nullptr, reader.get(), nullptr, flags | CMS_DETACHED) == 1
            ? ZELError()
            : failure(QStringLiteral("the signature does not verify"));
    }
    const Bio verified(BIO_new(BIO_s_mem()));
    char *bytes = nullptr;
    if (CMS_verify(cms.get(), nullptr, nullptr, nullptr, verified.get(), flags) != 1)
        return failure(QStringLiteral("the signature does not verify"));
    // Two readers of one structure must not see two contents.
    const long size = BIO_get_mem_data(verified.get(), &bytes);
    return outline.content == QByteArrayView(bytes, size)
        ? ZELError()
        : failure(QStringLiteral("the signature file is malformed"));
}

} // namespace

ZELError Signer::load(const QString &keyFile, const QString &certificateFile)
{
    QByteArray key;
    QByteArray certificate;
    if (const ZELError error = readPem(keyFile, key))
        return error;
    if (const ZELError error = readPem(certificateFile, certificate))
        return error;
    m_key = {PEM_read_bio_PrivateKey(readerOf(key).get(), nullptr, noPassphrase, nullptr), EVP_PKEY_free};
    if (!m_key)
        return failure(keyFile + QLatin1String(" holds no private key in PEM without a passphrase"));
    m_certificate = {PEM_read_bio_X509(readerOf(certificate).get(), nullptr, noPassphrase, nullptr),
                     X509_free};
    if (!m_certificate)
        return failure(certificateFile + QLatin1String(" holds no certificate in PEM"));
    if (!canSign(m_key.get()))
        return ZELError::withMessage(
            keyFile
            + QLatin1String(" holds a key of a kind that cannot seal: it takes an RSA key of "
                            "2048 to 8192 bits, or an EC key (P-256, P-384, P-521)"));
    if (X509_check_private_key(m_certificate.get(), m_key.get()) != 1)
        return failure(certificateFile + QLatin1String(" is not the certificate of the key in ") + keyFile);
    const Time now(ASN1_TIME_set(nullptr, std::time(nullptr)));
    const ZELError error = checkSigner(m_certificate.get(), now.get());
    return error ? ZELError::withMessage(certificateFile + QLatin1String(": ") + error.message) : ZELError();
}

ZELError signWith(const QList<Signer> &signers, const QByteArray &content, SignatureKind kind,
                  QByteArray &signature)
{
    const unsigned int flags = CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP
        | (kind == SignatureKind::Detached ? unsigned(CMS_DETACHED) : 0);
    const Bio reader = readerOf(content);
    const Cms cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    bool added = cms && !signers.isEmpty() && signers.size() <= MaxSigners;
    for (const Signer &signer : signers)
        added = added && CMS_add1_signer(cms.get(), signer.certificate(), signer.key(), EVP_sha256(), flags);
    if (!added || CMS_final(cms.get(), reader.get(), nullptr, flags) != 1)
        return failure(QStringLiteral("cannot sign"));
    unsigned char *der = nullptr;
    const int size = i2d_CMS_ContentInfo(cms.get(), &der);
    if (size < 0)
        return failure(QStringLiteral("cannot write the signature"));
    signature = QByteArray(reinterpret_cast<const char *>(der), size);
    OPENSSL_free(der);
    return {};
}

ZELError verifySignature(const QByteArray &content, const QByteArray &signature, const SignerPins &pins,
                         int *signersLeft)
{
    const ErrorsTaken taken;
    Cms cms;
    ZELError error = verify(signature, &content, signersLeft, cms);
    if (!error && pins)
        error = checkPins(cms.get(), *pins, nullptr);
    return error;
}

ZELError verifyMessage(const QByteArray &message, const AcceptedSigners &accepted, qint64 issued)
{
    const ErrorsTaken taken;
    Cms cms;
    const Time when(ASN1_TIME_set(nullptr, time_t(issued)));
    ZELError error = verify(message, nullptr, nullptr, cms);
    if (!error && !when)
        error = failure(QStringLiteral("its time is no time"));
    if (!error)
        error = checkPins(cms.get(), accepted, when.get());
    return error;
}

QByteArray contentOf(const QByteArray &message)
{
    const ErrorsTaken taken;
    const SignatureOutline outline = SignatureOutline::of(message);
    return outline.isWhole ? outline.content.toByteArray() : QByteArray();
}

QList<SealSigner> namedSigners(const QByteArray &signature)
{
    const ErrorsTaken taken;
    const SignatureOutline outline = SignatureOutline::of(signature);
    QList<SealSigner> signers;
    const bool isSmall =
        signature.size() <= MaxSignatureSize && !checkOutline(outline, outline.content.isNull(), MaxSigners);
    if (const Cms cms = isSmall ? decoded(signature) : Cms()) {
        // Certificates are matched to signers when a signature is verified, which this is not.
        CMS_set1_signers_certs(cms.get(), nullptr, 0);
        const Certificates found(CMS_get0_signers(cms.get()));
        for (int i = 0; i < sk_X509_num(found.get()); ++i) {
            const X509 *certificate = sk_X509_value(found.get(), i);
            signers.append({subjectOf(certificate), fingerprintOf(certificate)});
        }
    }
    return signers;
}

} // namespace zel
