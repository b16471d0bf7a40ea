// The web engine's profile of the release notes: off the record, and fenced in.
#pragma once

#include <QString>
#include <QWebEngineProfile>
#include <QWebEngineUrlRequestInterceptor>
#include <QWebEngineUrlSchemeHandler>

namespace zel {

/// The address of a document that was handed over as text; nothing is relative to it.
QUrl notesUrl();

/// Makes the address's scheme known. Before the first profile; a host that has made one of its own already gets a
/// warning, and the notes work all the same.
void registerNotesScheme();

/// Whether the notes may load `url`, as a document or as a part of one: from the network, or from memory.
bool mayBeLoaded(const QUrl &url);

/// Hands out the document at `notesUrl`. The web engine's own way to show a text takes at most 2 MB.
class NotesSource : public QWebEngineUrlSchemeHandler
{
public:
    void setHtml(const QString &html) { m_html = html.toUtf8(); }
    void requestStarted(QWebEngineUrlRequestJob *job) override;

private:
    QByteArray m_html;
};

class NotesFence : public QWebEngineUrlRequestInterceptor
{
public:
    void interceptRequest(QWebEngineUrlRequestInfo &info) override;
};

class NotesProfile : public QWebEngineProfile
{
public:
    NotesProfile();

    /// Removes the handlers before they go.
    ~NotesProfile() override;

    NotesSource &source() { return m_source; }

private:
    NotesSource m_source;
    NotesFence m_fence;
};

} // namespace zel
