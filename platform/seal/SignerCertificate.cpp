#include "SignerCertificate.h"

#include <QByteArray>

#include <memory>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace zel {

namespace {

using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

QString textIn(BIO *memory)
{
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(memory, &bytes);
    return QString::fromUtf8(bytes, size);
}

QString dateText(const ASN1_TIME *time)
{
    const Memory text(BIO_new(BIO_s_mem()), BIO_free);
    ASN1_TIME_print_ex(text.get(), time, ASN1_DTFLGS_ISO8601);
    return textIn(text.get());
}

bool hasShortExponent(const EVP_PKEY *key)
{
    constexpr int longest = 32; // bits; nearly all have 17
    BIGNUM *exponent = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent);
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> owner(exponent, BN_free);
    return exponent && BN_num_bits(exponent) <= longest;
}

ZELError unsuitable(const X509 *certificate, const QString &why)
{
    return ZELError::withMessage(QStringLiteral("the certificate of %1 %2").arg(subjectOf(certificate), why));
}

} // namespace

QString subjectOf(const X509 *certificate)
{
    const Memory text(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0,
                       XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return textIn(text.get());
}

QString fingerprintOf(const X509 *certificate)
{
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned int size = 0;
    X509_digest(certificate, EVP_sha256(), reinterpret_cast<unsigned char *>(digest.data()), &size);
    return QString::fromLatin1(digest.left(size).toHex());
}

bool haveOneKey(const X509 *first, const X509 *second)
{
    return EVP_PKEY_eq(X509_get0_pubkey(first), X509_get0_pubkey(second)) == 1;
}

// One rule for those who sign and for those who verify. Keys that sign a digest of their own choice (Ed25519)
// do not fit signatures over SHA-2; DSA is of the past. What lies beyond the upper bounds takes ten times as
// long to verify as what is in use: a second signature of a hostile bundle after the other.
bool canSign(const EVP_PKEY *key)
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

// An extension that is missing forbids nothing: most certificates that sign themselves have none.
ZELError checkSigner(const X509 *certificate, const ASN1_TIME *when)
{
    constexpr uint32_t signing = KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION;
    constexpr uint32_t forCode = XKU_CODE_SIGN | XKU_SMIME | XKU_ANYEKU;
    auto *readable = const_cast<X509 *>(certificate); // what it says is worked out once, in it
    if ((X509_get_key_usage(readable) & signing) == 0)
        return unsuitable(certificate, QStringLiteral("is not for signatures, by its key usage"));
    if ((X509_get_extended_key_usage(readable) & forCode) == 0)
        return unsuitable(certificate,
                          QStringLiteral("is not for signing code or messages, by its extended key usage"));
    if (!when)
        return unsuitable(certificate, QStringLiteral("cannot be judged: the signature bears no time"));
    const ASN1_TIME *first = X509_get0_notBefore(certificate);
    const ASN1_TIME *last = X509_get0_notAfter(certificate);
    // A time that cannot be read compares as -2.
    if (const int begun = ASN1_TIME_compare(when, first); begun != 0 && begun != 1)
        return unsuitable(certificate,
                          QStringLiteral("was not valid yet when it signed (%1): it begins at %2")
                              .arg(dateText(when), dateText(first)));
    if (const int left = ASN1_TIME_compare(last, when); left != 0 && left != 1)
        return unsuitable(certificate,
                          QStringLiteral("was not valid any more when it signed (%1): it ended at %2")
                              .arg(dateText(when), dateText(last)));
    return {};
}

} // namespace zel
