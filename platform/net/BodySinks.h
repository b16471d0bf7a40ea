// Where the bytes of a body go: to memory or to a file, each within bounds.
#pragma once

#include "common/ZELError.h"

#include <QByteArrayView>
#include <QTemporaryFile>

namespace zel {

class BodySink
{
public:
    virtual ~BodySink() = default;

    /// Called before anything is sent; an error ends the transfer.
    virtual ZELError open() = 0;

    /// Called before the first byte, where the server announced how many there will be: a body that cannot be
    /// taken whole is not loaded at all. An error ends the transfer.
    virtual ZELError expect(qint64 size) = 0;

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
    ZELError expect(qint64 size) override;
    ZELError write(QByteArrayView bytes) override;
    bool takesDecodedContent() const override { return true; }

    /// Never null.
    QByteArray body() const { return m_body; }

private:
    const qint64 m_limit;
    QByteArray m_body = "";
};

/// Writes at most `limit` bytes to a new file in `folder`, which is made with mode 0700 when it is missing,
/// and leaves the file system its reserve. The file goes with the sink, unless it was moved away.
class BodyInFile : public BodySink
{
public:
    BodyInFile(const QString &folder, qint64 limit);

    ZELError open() override;
    ZELError expect(qint64 size) override;
    ZELError write(QByteArrayView bytes) override;
    bool takesDecodedContent() const override { return false; }

    QString location() const { return m_file.fileName(); }

private:
    // What the file's name is found by must stay, even when the file has been moved.
    class File : public QTemporaryFile
    {
    public:
        using QTemporaryFile::open;
        using QTemporaryFile::QTemporaryFile;
    };

    ZELError allow(qint64 size);
    ZELError failure(const QString &reason) const;

    const QString m_folder;
    File m_file;
    const qint64 m_limit;
    qint64 m_left; // of the limit
    qint64 m_granted = 0; // bytes that may be written before the file system is looked at again
};

} // namespace zel
