// The file that a download goes to, which several attempts may have a part in.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QTemporaryFile>

namespace zel {

/// Used by one thread at a time.
class BodyFile
{
public:
    virtual ~BodyFile() = default;

    /// Makes the file, or opens the one that is there. Called once, before anything is sent.
    virtual ZELError open() = 0;

    /// Open to read and write once `open` has succeeded, else -1; stays the file's own.
    virtual int descriptor() const = 0;

    /// Where the file lies.
    virtual QString location() const = 0;

    /// What the rest of the file may be asked for with (`isValidator`); empty: what is there cannot be
    /// continued.
    virtual QByteArray validator() const = 0;

    /// Empties the file, whose bytes come under `validator` from now on. False, with errno, on failure.
    virtual bool startAgain(const QByteArray &validator) = 0;

    /// Bytes of it that the rest can be asked for behind; 0 when there is no validator.
    qint64 kept() const;

    /// Whether bytes of more than one answer are in it, so that wrong contents may be nobody's fault.
    bool isContinued() const { return m_isContinued; }
    void setContinued(bool continued) { m_isContinued = continued; }

private:
    bool m_isContinued = false;
};

/// A new file in a folder, which is made with mode 0700 when it is missing. The file goes with this object,
/// unless it was moved away.
class TemporaryBodyFile : public BodyFile
{
public:
    explicit TemporaryBodyFile(const QString &folder);

    ZELError open() override;
    int descriptor() const override { return m_file.handle(); }
    QString location() const override { return m_file.fileName(); }
    QByteArray validator() const override { return m_validator; }
    bool startAgain(const QByteArray &validator) override;

private:
    // What the file's name is found by must stay, even when the file has been moved.
    class File : public QTemporaryFile
    {
    public:
        using QTemporaryFile::open;
        using QTemporaryFile::QTemporaryFile;
    };

    const QString m_folder;
    File m_file;
    QByteArray m_validator;
};

} // namespace zel
