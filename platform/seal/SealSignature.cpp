// Detached signatures, made and verified by OpenSSL, which is asked for the mathematics alone. What makes a
// signature acceptable is decided here, before anything expensive is computed: a stranger's signature could
// name thousands of digests or signers, keys of any length, or digests that are broken, and the library would
// work through them all. Hence the order in `verifySignature`: the shape of the structure, then the keys,
// then the signatures themselves, and the pins last, over certificates whose signatures have verified.
// Certificates are containers of keys and names here and no more: nobody's authority, purpose or date is
// asked, since a seal must stay valid for as long as the bundle is used. Trust comes from where the update
// was announced, or from pinned fingerprints (SealSigners.h).
#include "SealSignature.h"

#include <QFile>

#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

constexpr qint64 MaxPemSize = 1 << 20;
constexpr int MaxSigners = 8; // and digests; a seal has one

struct Free {
    void operator()(BIO *memory) const { BIO_free(memory); }
    void operator()(BIGNUM *number) const { BN_free(number); }
    void operator()(CMS_ContentInfo *cms) const { CMS_ContentInfo_free(cms); }
    void operator()(X509_ALGOR *algorithm) const { X509_ALGOR_free(algorithm); }
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_free(certificates); } // not what is in it
};
using Bio = std::unique_ptr<BIO, Free>;
using Cms = std::unique_ptr<CMS_ContentInfo, Free>;
using Algorithm = std::unique_ptr<X509_ALGOR, Free>;
using Certificates = std::unique_ptr<STACK_OF(X509), Free>;

Bio readerOf(const QByteArray &bytes)
{
    return Bio(BIO_new_mem_buf(bytes.constData(), int(bytes.size())));
}

// Takes the library's queued errors along, so that none is left for the host to stumble over.
ZELError failure(const QString &what)
{
    const char *reason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
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

bool hasShortExponent(const EVP_PKEY *key)
{
    constexpr int longest = 32; // bits; nearly all have 17
    BIGNUM *exponent = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent);
    const std::unique_ptr<BIGNUM, Free> owner(exponent);
    return exponent && BN_num_bits(exponent) <= longest;
}

// One rule for those who seal and for those who verify. Keys that sign a digest of their own choice (Ed25519)
// do not fit signatures over SHA-2; DSA is of the past. What lies beyond the upper bounds takes ten times as
// long to verify as what is in use: a second signature of a hostile bundle after the other.
bool canSeal(const EVP_PKEY *key)
{
    const int bits = key ? EVP_PKEY_get_bits(key) : 0;
    switch (key ? EVP_PKEY_get_base_id(key) : EVP_PKEY_NONE) {
    case EVP_PKEY_EC:
        return bits >= 224 && bits <= 521;
    case EVP_PKEY_RSA:
        return bits >= 2048 && bits <= 8192 && hasShortExponent(key);
    default:
        return false;
    }
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

/// Goes into the elements of a DER structure, one in the other.
class DerReader
{
public:
    explicit DerReader(const QByteArray &der)
        : m_at(reinterpret_cast<const unsigned char *>(der.constData()))
        , m_end(m_at + der.size())
    {
    }

    bool enter(int wantedTag) { return read(wantedTag); }
    bool skip(int wantedTag)
    {
        const unsigned char *const end = m_end;
        const bool there = read(wantedTag);
        m_at = m_end;
        m_end = end;
        return there;
    }
    bool atEnd() const { return m_at == m_end; }
    X509_ALGOR *algorithm() { return d2i_X509_ALGOR(nullptr, &m_at, long(m_end - m_at)); }

private:
    // Now at the content of the next element, and nowhere when that is not the wanted one or of no stated
    // length.
    bool read(int wantedTag)
    {
        constexpr int unsoundOrIndefinite = 0x80 | 1;
        long length = 0;
        int tag = 0;
        int kind = 0;
        const int form = ASN1_get_object(&m_at, &length, &tag, &kind, long(m_end - m_at));
        const bool wanted = (form & unsoundOrIndefinite) == 0 && tag == wantedTag;
        m_end = wanted ? m_at + length : m_at;
        return wanted;
    }

    const unsigned char *m_at;
    const unsigned char *m_end;
};

// Whether the digests that a signature announces for all its signers are few and strong. The library shows
// them to nobody, runs the content through each of them, were they thousands, and loses memory over one that
// it does not know.
bool announcesStrongDigests(const QByteArray &signature)
{
    DerReader reader(signature);
    const bool found = reader.enter(V_ASN1_SEQUENCE) && reader.skip(V_ASN1_OBJECT) && reader.enter(0)
        && reader.enter(V_ASN1_SEQUENCE) && reader.skip(V_ASN1_INTEGER) && reader.enter(V_ASN1_SET);
    int count = 0;
    for (; found && !reader.atEnd(); ++count) {
        const Algorithm digest(reader.algorithm());
        if (!isStrong(digest.get()) || count == MaxSigners)
            return false;
    }
    return count > 0;
}

// What the library would let pass.
ZELError checkShape(CMS_ContentInfo *cms, const QByteArray &signature, int mostSigners)
{
    if (!CMS_is_detached(cms))
        return failure(QStringLiteral("the signature is not detached"));
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    const int count = sk_CMS_SignerInfo_num(signers);
    if (count < 1 || count > mostSigners)
        return failure(count < 1 ? QStringLiteral("the signature has no signer")
                                 : QStringLiteral("the signature has too many signers"));
    bool strong = announcesStrongDigests(signature);
    for (int i = 0; i < count; ++i) {
        X509_ALGOR *digest = nullptr;
        CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), nullptr, nullptr, &digest, nullptr);
        strong = strong && isStrong(digest);
    }
    return strong ? ZELError() : failure(QStringLiteral("the signature is over a digest that is not SHA-2"));
}

// Before anything is computed with them.
ZELError checkKeys(CMS_ContentInfo *cms)
{
    CMS_set1_signers_certs(cms, nullptr, 0); // finds each signer's certificate among those inside
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
        EVP_PKEY *key = nullptr;
        CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), &key, nullptr, nullptr, nullptr);
        if (key && !canSeal(key))
            return failure(
                QStringLiteral("the signer's key is too weak, too long, or of another kind than RSA and EC"));
    }
    return {};
}

QString subjectOf(const X509 *certificate)
{
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0,
                       XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return QString::fromUtf8(bytes, size);
}

QString fingerprintOf(const X509 *certificate)
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned int size = 0;
    X509_digest(certificate, EVP_sha256(), reinterpret_cast<unsigned char *>(digest.data()), &size);
    return QString::fromLatin1(digest.left(size).toHex());
}

// The pins may be in any form that `normalFingerprint` reads.
bool hasPinnedSigner(CMS_ContentInfo *signature, const QStringList &pins)
{
    QStringList accepted;
    for (const QString &pin : pins) {
        if (const std::optional<QString> readable = zel::normalFingerprint(pin))
            accepted.append(*readable);
    }
    const Certificates signers(CMS_get0_signers(signature));
    for (int i = 0; i < sk_X509_num(signers.get()); ++i) {
        if (accepted.contains(fingerprintOf(sk_X509_value(signers.get(), i))))
            return true;
    }
    return false;
}

} // namespace

namespace zel {

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
    if (!canSeal(m_key.get()))
        return ZELError::withMessage(
            keyFile
            + QLatin1String(" holds a key of a kind that cannot seal: it takes an RSA key of "
                            "2048 to 8192 bits, or an EC key (P-256, P-384, P-521)"));
    if (X509_check_private_key(m_certificate.get(), m_key.get()) != 1)
        return failure(certificateFile + QLatin1String(" is not the certificate of the key in ") + keyFile);
    return {};
}

ZELError Signer::sign(const QByteArray &content, QByteArray &signature) const
{
    constexpr unsigned int flags = CMS_DETACHED | CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
    const Bio reader = readerOf(content);
    const Cms cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    if (!cms || !CMS_add1_signer(cms.get(), m_certificate.get(), m_key.get(), EVP_sha256(), flags)
        || CMS_final(cms.get(), reader.get(), nullptr, flags) != 1)
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
    const auto *at = reinterpret_cast<const unsigned char *>(signature.constData());
    const auto *end = at + signature.size();
    const Cms cms(d2i_CMS_ContentInfo(nullptr, &at, long(signature.size())));
    if (!cms || at != end)
        return failure(QStringLiteral("the signature file is malformed"));
    if (const ZELError error =
            checkShape(cms.get(), signature, signersLeft ? qMin(MaxSigners, *signersLeft) : MaxSigners))
        return error;
    if (signersLeft)
        *signersLeft -= sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms.get()));
    if (const ZELError error = checkKeys(cms.get()))
        return error;
    constexpr unsigned int flags = CMS_DETACHED | CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY;
    const Bio reader = readerOf(content);
    if (CMS_verify(cms.get(), nullptr, nullptr, reader.get(), nullptr, flags) != 1)
        return failure(QStringLiteral("the signature does not verify"));
    if (pins && !hasPinnedSigner(cms.get(), *pins))
        return failure(QStringLiteral("the signer is not one of those that are pinned"));
    return {};
}

QList<SealSigner> namedSigners(const QByteArray &signature)
{
    const auto *at = reinterpret_cast<const unsigned char *>(signature.constData());
    const Cms cms(d2i_CMS_ContentInfo(nullptr, &at, long(signature.size())));
    QList<SealSigner> signers;
    if (cms) {
        // Certificates are matched to signers when a signature is verified, which this is not.
        CMS_set1_signers_certs(cms.get(), nullptr, 0);
        const Certificates found(CMS_get0_signers(cms.get()));
        for (int i = 0; i < sk_X509_num(found.get()); ++i) {
            const X509 *certificate = sk_X509_value(found.get(), i);
            signers.append({subjectOf(certificate), fingerprintOf(certificate)});
        }
    }
    ERR_clear_error();
    return signers;
}

} // namespace zel
