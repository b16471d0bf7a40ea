// What an interrupted command leaves behind: nothing.
#pragma once

#include <QString>
#include <QTemporaryDir>

namespace zel {

/// From here on SIGINT, SIGTERM and SIGHUP end the process only after what stands in the way, each
/// `Leftover`, is removed. Signals that the caller ignores stay ignored. To be called once, at the start.
void cleanUpWhenInterrupted();

/// A file or folder that is of no use until it is finished; removed when the command is interrupted
/// meanwhile.
class Leftover
{
public:
    explicit Leftover(const QString &path);
    ~Leftover();
    Leftover(const Leftover &) = delete;
    Leftover &operator=(const Leftover &) = delete;

private:
    const QString m_path;
};

/// A folder of its own for work in progress, private, gone when the work ends in whatever way.
class ScratchFolder
{
public:
    /// `pattern` is a path that ends in "XXXXXX".
    explicit ScratchFolder(const QString &pattern);
    ~ScratchFolder();

    bool isValid() const { return m_folder.isValid(); }
    QString errorString() const { return m_folder.errorString(); }
    QString path() const { return m_folder.path(); }
    QString filePath(const QString &name) const { return m_folder.filePath(name); }

private:
    ScratchFolder(const QString &pattern, const class Uninterrupted &);

    QTemporaryDir m_folder;
    const Leftover m_leftover;
};

/// Work that is short and must not be cut off: interruptions wait while one lives.
class Uninterrupted
{
public:
    Uninterrupted();
    ~Uninterrupted();
    Uninterrupted(const Uninterrupted &) = delete;
    Uninterrupted &operator=(const Uninterrupted &) = delete;
};

} // namespace zel
