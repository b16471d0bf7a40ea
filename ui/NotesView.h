// The web view of the release notes, behind an interface that a module of its own fulfils. A process that links the
// web engine spends some 28 MB and half its start-up on it; with the module it does so once notes are shown, and a
// background check never does.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <memory>

class QWebEngineView;
class QWidget;

namespace zel {

/// Shows one document. Links open in the system's handler and nothing else leaves the view: no files, windows,
/// dialogs of scripts, downloads or stored data. Main thread only.
class NotesView
{
public:
    virtual ~NotesView() = default;

    /// The view, owned by this object and a child of the widget that it was made for.
    virtual QWebEngineView *view() = 0;
    virtual QWidget *widget() = 0;

    /// Posts `body` to `address` and shows what comes back.
    virtual void load(const QUrl &address, const QByteArray &body) = 0;

    /// Shows a document that has no address, of any length.
    virtual void setHtml(const QString &html) = 0;
};

/// Null, and a warning in the system log, when the module is not there or cannot be loaded.
std::unique_ptr<NotesView> makeNotesView(QWidget *parent);

/// What the module exports as "zelMakeNotesView": a new view, whose owner is the caller.
using NotesViewFactory = NotesView *(*)(QWidget *parent);

} // namespace zel
