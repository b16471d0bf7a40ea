// Which addresses the release notes reach.
#pragma once

#include <QUrl>

namespace zel {

/// Whether `host` is one of the open network: a literal address that is routed there, or a name that is no machine's
/// own (localhost), no local network's (.local, .lan, ...) and has a dot. A name says nothing about the address that it
/// resolves to. Addresses in odd forms (a number, hexadecimal, IPv4 within IPv6) count as what they stand for.
bool isPublicHost(const QString &host);

/// What one document may reach: the open network and, when it comes from this machine or the local network itself (a
/// developer's server), its own origin. Main thread only.
class NotesReach
{
public:
    /// The host of the view asked for `document`; its scheme, host and port are its origin.
    void start(const QUrl &document);

    /// The document is at `url` now, by a redirection. Who left the local network does not come back.
    void follow(const QUrl &url);

    bool allows(const QUrl &url) const;

    /// Whether `url` is allowed for being of the document's own origin, so that no address has to be judged.
    bool isOwn(const QUrl &url) const;

private:
    QUrl m_own; // the origin, when it is not public
};

} // namespace zel
