// The head of an answer, as libcurl has read it.
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <chrono>
#include <curl/curl.h>
#include <optional>

namespace zel {

/// What an answer says before its body, and what a proxy has said before that. Looks into an exchange that
/// its owner keeps.
class AnswerHead
{
public:
    explicit AnswerHead(CURL *exchange)
        : m_exchange(exchange)
    {
    }

    long status() const;

    /// The value of a header. Null: there is none. Empty, which nothing can be read from: there are several.
    QByteArray header(const char *name) const;

    /// Of the body; -1 where the server does not tell.
    qint64 announcedSize() const;

    /// Where it redirects to, as it says it; null: it is no redirection.
    QByteArray redirection() const;

    /// What the server asks for as a pause; 0: nothing.
    std::chrono::seconds retryAfter() const;

    /// Whether a 206 has the bytes that are missing, and no others: from `offset` to the file's end, of a
    /// file of `size` bytes where that is known, not coded, and of the version that `validator` stands for.
    bool isRest(qint64 offset, std::optional<qint64> size, const QByteArray &validator) const;

    /// Of a proxy's answer to the wish for a connection through it; 0: none was asked for.
    long tunnelStatus() const;

    /// Whether the proxy wants a password that it was not given: for a connection through it, or, without
    /// encryption, in an answer of its own. To be asked only of an exchange through a proxy.
    bool wantsPassword() const;

    /// What has gone either way so far, the head included.
    qint64 bytesMoved() const;

private:
    CURL *const m_exchange;
};

/// How often what follows a line of the head is coded, as far as that line says it: for the transfer, other
/// than in chunks, which counts twice since nobody has asked for it, and where `isDecoded` for the content.
int codingsIn(QByteArrayView line, bool isDecoded);

} // namespace zel
