#include "TestCertificate.h"

#include <QByteArray>
#include <QFile>

#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using File = std::unique_ptr<BIO, decltype(&BIO_free)>;

void require(bool done, const char *what)
{
    if (!done)
        qFatal("cannot make a test certificate: %s", what);
}

Certificate selfSigned(EVP_PKEY *key, const QByteArray &name)
{
    Certificate certificate(X509_new(), X509_free);
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 24 * 60 * 60);
    X509_NAME *subject = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char *>(name.constData()), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), subject);
    X509_set_pubkey(certificate.get(), key);
    require(X509_sign(certificate.get(), key, EVP_sha256()) > 0, "signing");
    return certificate;
}

QString fingerprintOf(const X509 *certificate)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    X509_digest(certificate, EVP_sha256(), digest, &size);
    const QByteArray bytes(reinterpret_cast<const char *>(digest), size);
    return QString::fromLatin1(bytes.toHex(':').toUpper());
}

File writer(const QString &path)
{
    File file(BIO_new_file(QFile::encodeName(path).constData(), "w"), BIO_free);
    require(bool(file), "writing");
    return file;
}

} // namespace

TestCertificate makeTestCertificate(const QString &folder, const QString &name)
{
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    require(bool(key), "the key");
    const Certificate certificate = selfSigned(key.get(), name.toUtf8());
    const QString path = folder + u'/' + name;
    const TestCertificate made{path + QLatin1String(".key"), path + QLatin1String(".crt"),
                               fingerprintOf(certificate.get())};
    PEM_write_bio_PrivateKey(writer(made.keyFile).get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    PEM_write_bio_X509(writer(made.certificateFile).get(), certificate.get());
    return made;
}
