// Where the bytes of a body go: to memory or to a file, each within bounds.
#pragma once

#include "BodyFile.h"

#include <QByteArrayView>

#include <memory>

namespace zel {

/// What an answer says of the body that begins.
struct BodyStart {
    qint64 offset = 0; ///< of its first byte; beyond 0 only where the sink has asked for the rest
    qint64 size = -1; ///< of the whole, `offset` included; -1 when the server does not tell
    QByteArray validator = {}; ///< as `BodyFile::validator`
    bool isFile = true; ///< the file that was asked for may begin here; else what a server says instead of it
};

class BodySink
{
public:
    virtual ~BodySink() = default;

    /// Called before anything is sent; an error ends the transfer.
    virtual ZELError open() = 0;

    /// The file of earlier attempts that the next one continues; null where each begins with nothing.
    virtual const BodyFile *file() const { return nullptr; }

    /// Called before the first byte of each answer that is taken: a body that cannot be taken whole is not
    /// loaded at all. Unless it has an offset, what came before is given up, but of `file` nothing that is
    /// better than its beginning would be. An error ends the transfer.
    virtual ZELError begin(const BodyStart &start) = 0;

    /// Takes the next bytes; an error ends the transfer.
    virtual ZELError write(QByteArrayView bytes) = 0;

    /// Whether the server may code the body, which is then decoded before it is written.
    virtual bool takesDecodedContent() const = 0;
};

/// Keeps at most `limit` bytes.
class BodyInMemory : public BodySink
{
public:
    explicit BodyInMemory(qint64 limit);

    ZELError open() override;
    ZELError begin(const BodyStart &start) override;
    ZELError write(QByteArrayView bytes) override;
    bool takesDecodedContent() const override { return true; }

    /// Never null.
    QByteArray body() const { return m_body; }

private:
    const qint64 m_limit;
    QByteArray m_body = "";
};

/// Writes at most `limit` bytes to a file and leaves the file system its reserve. What is not the file, or
/// cannot be known to be it, goes to a new one in `folder`, so that a page never takes the place of a good
/// beginning. On a full disk nothing is kept.
class BodyInFile : public BodySink
{
public:
    /// `file` may have a beginning already; without one it is a new one in `folder`, too.
    BodyInFile(const QString &folder, qint64 limit, std::shared_ptr<BodyFile> file = {});

    ZELError open() override;
    const BodyFile *file() const override { return m_file.get(); }
    ZELError begin(const BodyStart &start) override;
    ZELError write(QByteArrayView bytes) override;
    bool takesDecodedContent() const override { return false; }

    /// Of the file with the last body that began.
    QString location() const { return m_current->location(); }

private:
    ZELError start(qint64 offset, const QByteArray &validator);
    ZELError allow(qint64 size);
    ZELError noSpace(const QString &reason);
    ZELError failure(const QString &reason) const;

    const QString m_folder;
    const std::shared_ptr<BodyFile> m_file;
    std::unique_ptr<BodyFile> m_aside; // with what is not the file, or may be none
    bool m_isFile = true; // what comes may be the file
    BodyFile *m_current;
    const qint64 m_limit;
    qint64 m_left; // of the limit
    qint64 m_granted = 0; // bytes that may be written before the file system is looked at again
};

} // namespace zel
