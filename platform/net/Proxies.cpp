// Qt asks libproxy for the system's proxies, where it is built with it. What that makes of the environment is
// not what users know from other programs: `all_proxy` is unknown to it, `http_proxy` counts for https, too,
// and `HTTP_PROXY` is trusted where it may be a header that a visitor of a web site has sent. So the
// environment is read here, and libproxy is asked for the desktop's settings. The variable `no_proxy` is
// libcurl's to read.
#include "Proxies.h"

#include <QHostAddress>
#include <QNetworkProxy>

#include <initializer_list>

namespace zel {

namespace {

Proxy fromQt(const QNetworkProxy &proxy, bool hasExceptions)
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
    return {address.toEncoded(), hasExceptions};
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

} // namespace

QString Proxy::name() const
{
    const QString text = QString::fromUtf8(address);
    const QUrl url(text.contains(QLatin1String("://")) ? text : QLatin1String("http://") + text);
    constexpr int usualPort = 1080; // libcurl's
    return url.host() + u':' + QString::number(url.port(usualPort));
}

Proxy proxyFor(const QUrl &url)
{
    // A script gets no more of the address than the proxy sees of an encrypted connection.
    const QNetworkProxyQuery query(
        url.adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery | QUrl::RemoveFragment));
    if (!QNetworkProxyFactory::usesSystemConfiguration())
        return fromQt(QNetworkProxyFactory::proxyForQuery(query).value(0, QNetworkProxy::NoProxy), false);
    if (isThisMachine(url.host()))
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
    return fromQt(QNetworkProxyFactory::systemProxyForQuery(query).value(0, QNetworkProxy::NoProxy), true);
}

} // namespace zel
