// What has come of a download that did not get to its end, kept for the next attempt: of this process or
// another one, today or some days later.
#pragma once

#include "base/FileDescriptor.h"
#include "net/BodyFile.h"

#include <QString>

#include <chrono>
#include <memory>
#include <stop_token>

namespace zel {

/// The folder of what is kept: "~/Library/Application Support/Wexmoor 7/Download" of the user, beside that of
/// the staging folders, so that `cleanup` leaves it alone. A null string where there is no HOME.
QString downloadRoot();

/// The beginning of one file, which its SHA-256 names. No other process writes it while this object lives.
/// Afterwards it stays if it can be continued.
class PartialDownload : public BodyFile
{
public:
    /// Takes what there is of the file with a SHA-256 of 64 hexadecimal digits and of `size` bytes (-1: not
    /// known), else begins with nothing. Null where nothing can be kept: without such a hash, while somebody
    /// else loads the same file, and where `root` is null, a link, another user's or writable by others, or
    /// cannot lock files. One who holds the file may be about to end: that is waited for, as long as
    /// `patience` and until `stop` is requested.
    static std::shared_ptr<PartialDownload> take(const QString &root, const QString &sha256, qint64 size,
                                                 std::chrono::milliseconds patience = {},
                                                 const std::stop_token &stop = {});

    ~PartialDownload() override { letGo(); }

    /// Leaves the file to the next one who wants it, now; it cannot be written or moved after that.
    void letGo();

    ZELError open() override { return {}; }
    int descriptor() const override { return m_file.get(); }
    QString location() const override;
    QByteArray validator() const override { return m_validator; }
    bool startAgain(const QByteArray &validator) override;

    /// As `letGo`, but nothing of the file is kept.
    void discard();

    /// Moves the file to `path`, or copies it to another file system; nothing is kept of it then. False, with
    /// errno, on failure.
    bool moveTo(const QString &path);

private:
    PartialDownload(const QString &root, const QByteArray &name, FileDescriptor folder, FileDescriptor file)
        : m_root(root)
        , m_name(name)
        , m_folder(std::move(folder))
        , m_file(std::move(file))
    {
    }

    void readValidator(qint64 size);
    void writeValidator(const QByteArray &validator);
    bool copyTo(const QByteArray &target);
    void remove();

    const QString m_root;
    const QByteArray m_name; // the hash
    const FileDescriptor m_folder;
    FileDescriptor m_file;
    QByteArray m_validator;
};

/// Removes what is kept below `root` and is too old to be of use, or more than the newest few, or than 16 GiB
/// of them; never what a process is loading, nor files of other names. A root that `take` would refuse is not
/// touched. Errors are ignored.
void sweepDownloads(const QString &root);

} // namespace zel
