// Pins come out of a host's configuration: typed by a person, read from JSON or from settings, in whatever
// type that made of them. They fail closed. The key's presence pins; what cannot be read as a fingerprint
// accepts nobody, and is named in the log, since whoever made the mistake sees only that no update is
// accepted. Certificates are compared by the fingerprint alone, of those whose signatures were verified
// (SealSignature.cpp): a name can be anyone's.
#include "ConfiguredSigners.h"

#include "BundleSeal.h"
#include "common/DDLog.h"

#include <QJsonArray>
#include <QJsonValue>
#include <QRegularExpression>
#include <QSequentialIterable>

#include <cmath>

namespace zel {

namespace {

constexpr qsizetype DigestSize = 32; // of SHA-256

// Reads the value under "signers", whatever it is.
class PinReader
{
public:
    explicit PinReader(const QString &installedBundle)
        : m_installedBundle(installedBundle)
    {
    }

    void read(QVariant value)
    {
        if (value.typeId() == QMetaType::QJsonValue || value.typeId() == QMetaType::QJsonArray)
            value = value.typeId() == QMetaType::QJsonArray ? QVariant(value.toJsonArray().toVariantList())
                                                            : value.toJsonValue().toVariant();
        if (value.typeId() == QMetaType::QString)
            return readText(value.toString());
        if (value.typeId() == QMetaType::QByteArray)
            return readBytes(value.toByteArray());
        if (!value.canView<QSequentialIterable>())
            return leaveOut(QLatin1String("a value of the type ") + QLatin1String(value.typeName()));
        for (const QVariant item : value.view<QSequentialIterable>())
            read(item);
    }

    QStringList pins() const { return m_pins; }

private:
    void readBytes(const QByteArray &bytes)
    {
        readText(QString::fromLatin1(bytes.size() == DigestSize ? bytes.toHex() : bytes));
    }

    void readText(const QString &text)
    {
        static const QRegularExpression separators(QStringLiteral("[\\n\\r,;]+"));
        const QStringList parts = text.split(separators, Qt::SkipEmptyParts);
        for (const QString &part : parts) {
            if (part.trimmed() == QLatin1String("installed"))
                addInstalled();
            else if (const std::optional<QString> pin = normalFingerprint(part))
                m_pins += *pin;
            else
                leaveOut(part.left(100));
        }
        if (parts.isEmpty())
            leaveOut(QStringLiteral("an empty text"));
    }

    // Whether the installed seal is whole is not asked: who could change it could change the host.
    void addInstalled()
    {
        const QList<SealSigner> signers =
            m_installedBundle.isEmpty() ? QList<SealSigner>() : sealSigners(m_installedBundle);
        for (const SealSigner &signer : signers)
            m_pins += signer.fingerprint;
        if (signers.isEmpty())
            DDLogInfo(QStringLiteral("\"signers\" is \"installed\", but the installed bundle has no seal"));
    }

    static void leaveOut(const QString &what)
    {
        DDLogInfo(QLatin1String("\"signers\" holds what is no SHA-256 fingerprint, which accepts nobody: ")
                  + what);
    }

    const QString m_installedBundle;
    QStringList m_pins;
};

// A number, as a host or a file of settings has it; 0, which nobody reaches, for anything else.
qint64 thresholdOf(const std::optional<QVariant> &value)
{
    if (!value)
        return 1;
    bool understood = false;
    const double number = value->toDouble(&understood);
    const bool isCount = understood && value->typeId() != QMetaType::Bool && number >= 1
        && number == std::trunc(number) && number <= 1000;
    if (!isCount)
        DDLogInfo(QStringLiteral("\"threshold\" is no whole number above 0, which accepts nobody"));
    return isCount ? qint64(number) : 0;
}

} // namespace

SignerPins pinnedSigners(const HostConfig &config)
{
    if (!config.isPinned())
        return std::nullopt;
    PinReader reader(config.path);
    if (config.signers)
        reader.read(*config.signers);
    if (reader.pins().isEmpty())
        DDLogInfo(QStringLiteral("\"signers\" names nobody: no new bundle is accepted"));
    return AcceptedSigners(reader.pins(), thresholdOf(config.threshold));
}

} // namespace zel
