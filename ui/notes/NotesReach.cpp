#include "NotesReach.h"

#include "common/WireValues.h"

#include <QHostAddress>

#include <algorithm>

namespace zel {

namespace {

bool isWithin(const QHostAddress &address, std::initializer_list<const char *> networks)
{
    return std::any_of(networks.begin(), networks.end(), [&](const char *network) {
        return address.isInSubnet(QHostAddress::parseSubnet(QLatin1String(network)));
    });
}

bool isPublicAddress(const QHostAddress &address)
{
    bool isIPv4 = false; // or IPv4 mapped into IPv6
    const QHostAddress mapped(address.toIPv4Address(&isIPv4));
    if (isIPv4)
        return !isWithin(mapped,
                         {"0.0.0.0/8", "10.0.0.0/8", "100.64.0.0/10", "127.0.0.0/8", "169.254.0.0/16",
                          "172.16.0.0/12", "192.0.0.0/24", "192.168.0.0/16", "198.18.0.0/15", "224.0.0.0/3"});
    // Only this block is routed; 6to4 and Teredo carry an IPv4 address inside.
    return isWithin(address, {"2000::/3"}) && !isWithin(address, {"2001::/32", "2002::/16"});
}

bool isLocalName(const QString &name)
{
    static const QStringList local{QStringLiteral("localhost"),   QStringLiteral("local"),
                                   QStringLiteral("internal"),    QStringLiteral("intranet"),
                                   QStringLiteral("lan"),         QStringLiteral("home"),
                                   QStringLiteral("corp"),        QStringLiteral("private"),
                                   QStringLiteral("localdomain"), QStringLiteral("arpa")};
    const qsizetype dot = name.lastIndexOf(u'.');
    return dot < 0 || local.contains(name.mid(dot + 1));
}

QUrl origin(const QUrl &url)
{
    QUrl origin;
    origin.setScheme(url.scheme());
    origin.setHost(url.host());
    origin.setPort(url.port(url.scheme() == QLatin1String("https") ? 443 : 80));
    return origin;
}

} // namespace

bool isPublicHost(const QString &host)
{
    QString name = host.toLower();
    while (name.endsWith(u'.'))
        name.chop(1);
    const QHostAddress address(name);
    if (!address.isNull())
        return isPublicAddress(address);
    // A last label that begins with a digit is a number that no reader of addresses agreed on.
    const QString last = name.mid(name.lastIndexOf(u'.') + 1);
    return !last.isEmpty() && !last.front().isDigit() && !isLocalName(name);
}

void NotesReach::start(const QUrl &document)
{
    m_own = isWebAddress(document) && !isPublicHost(document.host()) ? origin(document) : QUrl();
}

void NotesReach::follow(const QUrl &url)
{
    if (!isOwn(url))
        m_own.clear();
}

bool NotesReach::allows(const QUrl &url) const
{
    return isWebAddress(url) && (isPublicHost(url.host()) || isOwn(url));
}

bool NotesReach::isOwn(const QUrl &url) const
{
    return !m_own.isEmpty() && origin(url) == m_own;
}

} // namespace zel
