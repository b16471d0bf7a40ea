#include "SealSigners.h"

#include <QRegularExpression>

namespace zel {

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

} // namespace zel
