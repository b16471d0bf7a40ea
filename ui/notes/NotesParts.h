// Pictures, style sheets, fonts and media of the release notes.
#pragma once

#include "NotesReach.h"

#include <QNetworkAccessManager>
#include <QUrl>
#include <QWebEngineUrlSchemeHandler>

namespace zel {

/// The scheme under which the web engine asks for a part: "zel-part:" and the part's address.
constexpr char PartScheme[] = "zel-part";

QUrl partUrl(const QUrl &address);

/// Fetches what a document is made of. The web engine cannot be left to do so: it follows a part's redirection before it
/// asks whether it may, so that any address of a page reaches this machine's servers by way of another one. Here each
/// hop is judged first, and so are the addresses that its name resolves to (where a proxy resolves them, the proxy
/// decides).
///
/// Parts are held in memory until they are complete: 64 MiB for all parts of a document, two minutes for each.
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
