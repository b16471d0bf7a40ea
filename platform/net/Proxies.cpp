// Qt asks libproxy for the system's proxies, where it is built with it. What that makes of the environment is
// not what users know from other programs: `all_proxy` is unknown to it, `http_proxy` counts for https, too,
// and `HTTP_PROXY` is trusted where it may be a header that a visitor of a web site has sent. So the
// environment is read here, and libproxy is asked for the desktop's settings.
//
// The variable `no_proxy` is read here, too. libcurl compares IPv6 addresses in it as texts, and does not
// tell whether it has used the proxy: what a host says that goes without would be taken for the proxy's
// words.
#include "Proxies.h"

#include <QHostAddress>
#include <QNetworkProxy>

#include <initializer_list>

namespace zel {

namespace {

constexpr int UsualPort = 1080; // libcurl's

Proxy fromQt(const QNetworkProxy &proxy)
{
    QUrl address;
    if (proxy.type() == QNetworkProxy::Socks5Proxy)
        address.setScheme(QStringLiteral("socks5h"));
    else if (proxy.type() == QNetworkProxy::HttpProxy || proxy.type() == QNetworkProxy::HttpCachingProxy)
        address.setScheme(QStringLiteral("http"));
    if (address.scheme().isEmpty())
        return {};
    address.setHost(proxy.hostName());
    address.setPort(proxy.port());
    address.setUserName(proxy.user());
    address.setPassword(proxy.password());
    return {address.toEncoded()};
}

bool isThisMachine(const QString &host)
{
    QHostAddress address;
    return host == QLatin1String("localhost") || host.endsWith(QLatin1String(".localhost"))
        || (address.setAddress(host) && address.isLoopback());
}

// A program that serves a web site gets its visitors' header "Proxy" under the name HTTP_PROXY.
bool servesVisitors()
{
    return qEnvironmentVariableIsSet("REQUEST_METHOD");
}

QByteArray firstSet(std::initializer_list<const char *> names)
{
    for (const char *name : names)
        if (const QByteArray value = qgetenv(name).trimmed(); !value.isEmpty())
            return value;
    return {};
}

// Addresses of IPv4 may come dressed as those of IPv6.
QHostAddress addressOf(const QString &host)
{
    const QHostAddress address(host);
    bool isMapped = false;
    const quint32 plain = address.toIPv4Address(&isMapped);
    return isMapped ? QHostAddress(plain) : address;
}

bool isBelow(QStringView host, QStringView name)
{
    while (host.endsWith(u'.'))
        host.chop(1);
    while (name.endsWith(u'.'))
        name.chop(1);
    while (name.startsWith(u'*') || name.startsWith(u'.'))
        name = name.sliced(1);
    return !name.isEmpty()
        && (host == name || (host.endsWith(name) && host.chopped(name.size()).endsWith(u'.')));
}

// Names with all that is below them, addresses, networks, and "*" for everything.
bool isException(const QString &host)
{
    const QHostAddress address = addressOf(host);
    QString list = QString::fromUtf8(firstSet({"no_proxy", "NO_PROXY"})).toLower().simplified();
    for (QString entry : list.replace(u' ', u',').split(u',')) {
        if (entry == u'*')
            return true;
        entry.remove(u'[').remove(u']');
        const bool isListed =
            address.isNull() ? isBelow(host, entry) : address.isInSubnet(QHostAddress::parseSubnet(entry));
        if (isListed)
            return true;
    }
    return false;
}

QUrl urlOf(const Proxy &proxy)
{
    const QString text = QString::fromUtf8(proxy.address);
    return QUrl(text.contains(QLatin1String("://")) ? text : QLatin1String("http://") + text);
}

} // namespace

int Proxy::port() const
{
    return urlOf(*this).port(UsualPort);
}

QString Proxy::name() const
{
    return urlOf(*this).host() + u':' + QString::number(port());
}

QUrl originOf(const QUrl &url)
{
    return url.adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment);
}

Proxy proxyFor(const QUrl &url)
{
    const QNetworkProxyQuery query(originOf(url));
    if (!QNetworkProxyFactory::usesSystemConfiguration())
        return fromQt(QNetworkProxyFactory::proxyForQuery(query).value(0, QNetworkProxy::NoProxy));
    if (isThisMachine(url.host()) || isException(url.host(QUrl::FullyEncoded)))
        return {};
    const QByteArray plain =
        servesVisitors() ? firstSet({"http_proxy"}) : firstSet({"http_proxy", "HTTP_PROXY"});
    const QByteArray secure = firstSet({"https_proxy", "HTTPS_PROXY"});
    const QByteArray any = firstSet({"all_proxy", "ALL_PROXY"});
    const QByteArray &own = url.scheme() == QLatin1String("https") ? secure : plain;
    if (!plain.isEmpty() || !secure.isEmpty() || !any.isEmpty())
        return {own.isEmpty() ? any : own};
    if (servesVisitors())
        return {};
    return fromQt(QNetworkProxyFactory::systemProxyForQuery(query).value(0, QNetworkProxy::NoProxy));
}

} // namespace zel
