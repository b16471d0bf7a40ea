// Pins come out of a host's configuration: typed by a person, read from JSON or from settings, in whatever
// type that made of them. They fail closed. The key's presence pins; what cannot be read as a fingerprint
// accepts nobody, and is named in the log, since whoever made the mistake sees only that no update is
// accepted. Certificates are compared by the fingerprint alone, of those whose signatures were verified
// (SealSignature.cpp): a name can be anyone's.
#include "SealSigners.h"

#include "common/DDLog.h"

#include <QJsonArray>
#include <QJsonValue>
#include <QRegularExpression>
#include <QSequentialIterable>

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

} // namespace zel
