#include "SealSigner.h"

#include "platform/BundleInfo.h"
#include "SealedBundle.h"

#include <QFile>

#include <memory>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace zel {

namespace {

struct Free {
    void operator()(BIO *text) const { BIO_free(text); }
    void operator()(CMS_ContentInfo *cms) const { CMS_ContentInfo_free(cms); }
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_free(certificates); } // the stack alone
};

QString subjectOf(const X509 *certificate)
{
    const std::unique_ptr<BIO, Free> text(BIO_new(BIO_s_mem()));
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

} // namespace

QList<SealSigner> sealSigners(const QString &bundle)
{
    QFile file(contentsFolder(bundle) + QLatin1String("/_CodeSignature/CodeSignature"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray der = file.read(MaxSignatureSize);
    const auto *at = reinterpret_cast<const unsigned char *>(der.constData());
    const std::unique_ptr<CMS_ContentInfo, Free> cms(d2i_CMS_ContentInfo(nullptr, &at, long(der.size())));
    QList<SealSigner> signers;
    if (cms) {
        // Certificates are matched to signers when a signature is verified, which this is not.
        STACK_OF(X509) *all = CMS_get1_certs(cms.get());
        CMS_set1_signers_certs(cms.get(), all, 0);
        const std::unique_ptr<STACK_OF(X509), Free> found(CMS_get0_signers(cms.get()));
        for (int i = 0; i < sk_X509_num(found.get()); ++i) {
            const X509 *certificate = sk_X509_value(found.get(), i);
            signers.append({subjectOf(certificate), fingerprintOf(certificate)});
        }
        sk_X509_pop_free(all, X509_free);
    }
    ERR_clear_error();
    return signers;
}

} // namespace zel
