// The web engine's profile of the release notes: off the record, and fenced in.
#pragma once

#include "NotesReach.h"

#include <QString>
#include <QWebEngineProfile>
#include <QWebEngineUrlRequestInterceptor>
#include <QWebEngineUrlSchemeHandler>

namespace zel {

/// Makes the schemes of the notes and of their parts known. Before the first profile; a host that has made
/// one of its own already gets a warning, and the notes work all the same.
void registerNotesSchemes();

/// Hands out a document that came as text, at an address that nothing is relative to. The web engine's own
/// way to show a text takes at most 2 MB.
class NotesSource : public QWebEngineUrlSchemeHandler
{
public:
    /// The address that `html` has from now on: another one each time, so that the engine never takes a
    /// document for the one before it.
    QUrl setHtml(const QString &html);

    static bool isSource(const QUrl &url);

    void requestStarted(QWebEngineUrlRequestJob *job) override;

private:
    QByteArray m_html;
    quint64 m_number = 0;
};

/// Lets the document through, and turns its parts over to `NotesParts`. All else ends here: frames,
/// prefetching, reports and whatever is asked for by another way than http and https.
class NotesFence : public QWebEngineUrlRequestInterceptor
{
public:
    explicit NotesFence(const NotesReach &reach);
    void interceptRequest(QWebEngineUrlRequestInfo &info) override;

private:
    const NotesReach &m_reach;
};

class NotesProfile : public QWebEngineProfile
{
public:
    NotesProfile();

    /// Removes the handlers before they go.
    ~NotesProfile() override;

    NotesReach &reach() { return m_reach; }
    NotesSource &source() { return m_source; }
    NotesParts &parts() { return m_parts; }

private:
    NotesReach m_reach;
    NotesSource m_source;
    NotesParts m_parts{m_reach};
    NotesFence m_fence{m_reach};
};

} // namespace zel
