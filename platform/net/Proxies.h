// Which proxy a request goes through.
#pragma once

#include <QByteArray>
#include <QUrl>

namespace zel {

struct Proxy {
    QByteArray address = {}; ///< as libcurl takes it, with the password; empty: none
    bool hasExceptions = true; ///< the variable no_proxy may name addresses that go without it

    /// "NAME:PORT", for people.
    QString name() const;
};

/// The proxy for an http or https address: what the application has set (QNetworkProxy), which may be none at
/// all. Where it has set nothing, what the environment says, for all addresses, as soon as one of its
/// variables is there; else what the desktop is set to. The machine itself is never asked for through a
/// proxy. A desktop's script may take its time, so this blocks; safe from any thread.
Proxy proxyFor(const QUrl &url);

} // namespace zel
