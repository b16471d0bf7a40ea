// Which proxy a request goes through.
#pragma once

#include <QByteArray>
#include <QUrl>

namespace zel {

struct Proxy {
    QByteArray address = {}; ///< as libcurl takes it, with the password; empty: none

    /// 0 where it has none that can be used.
    int port() const;

    /// "NAME:PORT", for people.
    QString name() const;
};

/// What of an address decides about its proxy: scheme, host and port. A script gets no more of it than the
/// proxy sees of an encrypted connection.
QUrl originOf(const QUrl &url);

/// The proxy for an http or https address: what the application has set (QNetworkProxy), which may be none at
/// all. Where it has set nothing, what the environment says, for all addresses, as soon as one of its
/// variables is there; else what the desktop is set to. The machine itself, and what the variable no_proxy
/// names, go without either. A desktop's script may take its time, so this blocks (`ProxyLookup` does not);
/// safe from any thread.
Proxy proxyFor(const QUrl &url);

} // namespace zel
