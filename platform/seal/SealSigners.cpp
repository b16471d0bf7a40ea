// Pins come out of a host's configuration: typed by a person, read from JSON or from settings, in whatever
// type that made of them. They fail closed. The key's presence pins; what cannot be read as a fingerprint
// accepts nobody, and is named in the log, since whoever made the mistake sees only that no update is
// accepted. Certificates are compared by the fingerprint alone, of those whose signatures were verified
// (SealSignature.cpp): a name can be anyone's.
#include "SealSigners.h"

#include "common/DDLog.h"
#include "platform/BundleInfo.h"
#include "SealedBundle.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonValue>
#include <QRegularExpression>
#include <QSequentialIterable>

#include <memory>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace zel {

namespace {

constexpr qsizetype DigestSize = 32; // of SHA-256

void leaveOut(const QString &what)
{
    DDLogInfo(QLatin1String("\"signers\" holds what is no SHA-256 fingerprint, which accepts nobody: ")
              + what);
}

void addText(QStringList &pins, const QString &text)
{
    static const QRegularExpression separators(QStringLiteral("[\\n\\r,;]+"));
    const QStringList parts = text.split(separators, Qt::SkipEmptyParts);
    for (const QString &part : parts) {
        if (const std::optional<QString> pin = normalFingerprint(part))
            pins += *pin;
        else
            leaveOut(part.left(100));
    }
    if (parts.isEmpty())
        leaveOut(QStringLiteral("an empty text"));
}

void addBytes(QStringList &pins, const QByteArray &bytes)
{
    addText(pins, QString::fromLatin1(bytes.size() == DigestSize ? bytes.toHex() : bytes));
}

void addValue(QStringList &pins, QVariant value)
{
    if (value.typeId() == QMetaType::QJsonValue || value.typeId() == QMetaType::QJsonArray)
        value = value.typeId() == QMetaType::QJsonArray ? QVariant(value.toJsonArray().toVariantList())
                                                        : value.toJsonValue().toVariant();
    if (value.typeId() == QMetaType::QString)
        return addText(pins, value.toString());
    if (value.typeId() == QMetaType::QByteArray)
        return addBytes(pins, value.toByteArray());
    if (!value.canView<QSequentialIterable>())
        return leaveOut(QLatin1String("a value of the type ") + QLatin1String(value.typeName()));
    for (const QVariant item : value.view<QSequentialIterable>())
        addValue(pins, item);
}

struct FreeStack {
    void operator()(STACK_OF(X509) * certificates) const { sk_X509_free(certificates); } // not what is in it
};
using Certificates = std::unique_ptr<STACK_OF(X509), FreeStack>;

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

} // namespace

std::optional<QString> normalFingerprint(const QString &text)
{
    static const QRegularExpression pattern(
        QStringLiteral("\\A\\s*(?:sha256 fingerprint=)?([0-9a-f]{2}(?:[:\\s]?[0-9a-f]{2}){31})\\s*\\z"),
        QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    QString digits = match.captured(1).toLower();
    digits.removeIf([](QChar c) { return c == u':' || c.isSpace(); });
    return digits;
}

SignerPins pinnedSigners(const HostConfig &config)
{
    if (!config.signers)
        return std::nullopt;
    QStringList pins;
    addValue(pins, *config.signers);
    if (pins.isEmpty())
        DDLogInfo(QStringLiteral("\"signers\" names nobody: no new bundle is accepted"));
    return pins;
}

bool hasPinnedSigner(CMS_ContentInfo *signature, const QStringList &pins)
{
    QStringList accepted;
    for (const QString &pin : pins) {
        if (const std::optional<QString> readable = normalFingerprint(pin))
            accepted.append(*readable);
    }
    const Certificates signers(CMS_get0_signers(signature));
    for (int i = 0; i < sk_X509_num(signers.get()); ++i) {
        if (accepted.contains(fingerprintOf(sk_X509_value(signers.get(), i))))
            return true;
    }
    return false;
}

QList<SealSigner> sealSigners(const QString &bundle)
{
    QFile file(contentsFolder(bundle) + QLatin1String("/_CodeSignature/CodeSignature"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray der = file.read(MaxSignatureSize);
    const auto *at = reinterpret_cast<const unsigned char *>(der.constData());
    const std::unique_ptr<CMS_ContentInfo, decltype(&CMS_ContentInfo_free)> cms(
        d2i_CMS_ContentInfo(nullptr, &at, long(der.size())), CMS_ContentInfo_free);
    QList<SealSigner> signers;
    if (cms) {
        // Certificates are matched to signers when a signature is verified, which this is not.
        STACK_OF(X509) *all = CMS_get1_certs(cms.get());
        CMS_set1_signers_certs(cms.get(), all, 0);
        const Certificates found(CMS_get0_signers(cms.get()));
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
