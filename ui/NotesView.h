// The web view of the release notes, behind an interface that a module of its own fulfils. A process that
// links the web engine spends some 28 MB and half its start-up on it; with the module it does so once notes
// are shown, and a background check never does.
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>

class QWebEngineView;
class QWidget;

namespace zel {

/// Shows one document, which is a stranger's.
///
/// - A link of http, https or mailto that the user activates, by a click or by the keyboard, opens in the
///   system's handler. Nothing else leaves the view, and nothing but `load` and `setHtml` changes the
///   document: no script of the page runs, no frame is loaded, no form is sent, nothing refreshes itself.
///   Places within the document can be gone to.
/// - It is made of what http and https bring, and of pictures that it holds itself: no files, no other
///   schemes, no windows, dialogs, downloads, permissions or stored data.
/// - Its process ends when it takes more than a gigabyte, which leaves nothing to see.
/// - This machine and its local network are out of its reach, by address, by name and by redirection. Only a
///   document that was itself loaded from there, as a developer's is, gets parts of its own origin. Known
///   limit: a name of the open network that resolves to a local address is seen through for the parts of a
///   document, but not for the document itself, nor where its address changes between two lookups.
///
/// A document that does not style itself is shown light on dark. Scripts of the host run in the page only in
/// a world of their own (`QWebEngineScript::ApplicationWorld`). Main thread only.
class NotesView
{
public:
    virtual ~NotesView() = default;

    /// The view, owned by this object and a child of the widget that it was made for.
    virtual QWebEngineView *view() = 0;
    virtual QWidget *widget() = 0;

    /// `onShown` hears of each document that was loaded: whether there is anything to see in it. Notes that
    /// cannot be had are an empty document.
    virtual void setOnShown(std::function<void(bool hasContent)> onShown) = 0;

    /// Posts `body` to `address` and shows what comes back, be it only a part, within two minutes.
    virtual void load(const QUrl &address, const QByteArray &body) = 0;

    /// Shows a document that has no address, of any length.
    virtual void setHtml(const QString &html) = 0;
};

/// Null, and a warning in the system log, when the module is not there or cannot be loaded, or when the web
/// engine would end the process for want of something (ui/notes/EngineObstacle.h).
std::unique_ptr<NotesView> makeNotesView(QWidget *parent);

/// What the module exports as "zelMakeNotesView": a new view, whose owner is the caller; null as above.
using NotesViewFactory = NotesView *(*)(QWidget *parent);

// Only the module includes the web engine's headers. A QWebEngineView is a QWidget and this a QObject, each
// as its first base: all three have one address.

inline QObject *asObject(QWebEngineView *view)
{
    return reinterpret_cast<QObject *>(view);
}

/// `object` is null or comes from `asObject`.
inline QWebEngineView *asWebView(QObject *object)
{
    return reinterpret_cast<QWebEngineView *>(object);
}

} // namespace zel
