// What the release notes reach over the network: which addresses, and how the parts of a document are
// fetched.
#pragma once

#include <QNetworkAccessManager>
#include <QUrl>
#include <QWebEngineUrlSchemeHandler>

namespace zel {

constexpr char UserAgent[] = "corrand";

/// Whether `host` is one of the open network: a literal address that is routed there, or a name that is no
/// machine's own (localhost), no local network's (.local, .lan, ...) and has a dot. A name says nothing about
/// the address that it resolves to. Addresses in odd forms (a number, hexadecimal, IPv4 within IPv6) count as
/// what they stand for.
bool isPublicHost(const QString &host);

/// What one document may reach: the open network and, when it comes from this machine or the local network
/// itself (a developer's server), its own origin. Main thread only.
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

/// The scheme under which the web engine asks for a part: "zel-part:" and the part's address.
constexpr char PartScheme[] = "zel-part";

QUrl partUrl(const QUrl &address);

/// Fetches what a document is made of. The web engine cannot be left to do so: it follows a part's
/// redirection before it asks whether it may, so that any address of a page reaches this machine's servers by
/// way of another one. Here each hop is judged first, and so are the addresses that its name resolves to
/// (where a proxy resolves them, the proxy decides).
///
/// Parts are held in memory until they are complete: 64 MiB for all parts of a document, two minutes for
/// each.
class NotesParts : public QWebEngineUrlSchemeHandler
{
public:
    explicit NotesParts(const NotesReach &reach);

    /// A new document begins: it has all of the room.
    void reset();

    void requestStarted(QWebEngineUrlRequestJob *job) override;

    const NotesReach &reach() const { return m_reach; }
    QNetworkAccessManager &network() { return m_network; }

    /// Takes `bytes` from what the document may still load; false when there is no room for them.
    bool take(qint64 bytes);

private:
    const NotesReach &m_reach;
    QNetworkAccessManager m_network;
    qint64 m_room = 0;
};

} // namespace zel
