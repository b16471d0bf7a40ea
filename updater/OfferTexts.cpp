#include "OfferTexts.h"

#include "base/SafeText.h"
#include "common/UpdateRecord.h"
#include "ui/Texts.h"

#include <QGuiApplication>

namespace zel {

namespace {

// The texts come from a server, and nobody listens to more of them.
QString spoken(const QVariant &text)
{
    constexpr std::size_t longest = 48;
    return QString::fromStdString(safeText(text.toString().toStdString(), longest));
}

} // namespace

QString offerTitle(const QVariantMap &record)
{
    const QString version = spoken(record[key::Version]);
    return QStringLiteral("%1 %2").arg(QGuiApplication::applicationDisplayName(), version).trimmed();
}

QString offerText(const QVariantMap &config, const QVariantMap &record)
{
    QString offered = spoken(record[key::Version]);
    QString current = spoken(config[key::Version]);
    if (offered.isEmpty() || current.isEmpty())
        return {};
    if (offered == current) {
        offered += QStringLiteral(" (%1)").arg(spoken(record[key::Build]));
        current += QStringLiteral(" (%1)").arg(spoken(config[key::Build]));
    }
    return localized("Updater.Version %1 is available, you have %2.").arg(offered, current);
}

} // namespace zel
