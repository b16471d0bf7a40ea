// A temporary folder with the few file operations that tests of bundles need.
#pragma once

#include <QByteArray>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>
#include <unistd.h>

class TemporaryTree
{
public:
    QString path(const QString &relative = {}) const
    {
        return relative.isEmpty() ? m_directory.path() : m_directory.filePath(relative);
    }

    /// Writes a file, making the folders above it; the mode is set exactly, whatever the umask.
    QString write(const QString &relative, const QByteArray &bytes, mode_t mode = 0644) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).path());
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly) || out.write(bytes) != bytes.size())
            qFatal("cannot write %s", qPrintable(file));
        out.close();
        ::chmod(QFile::encodeName(file).constData(), mode);
        return file;
    }

    QString link(const QString &relative, const QString &target) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).path());
        if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(file).constData()) != 0)
            qFatal("cannot link %s", qPrintable(file));
        return file;
    }

    QString directory(const QString &relative) const
    {
        QDir().mkpath(path(relative));
        return path(relative);
    }

    QByteArray read(const QString &relative) const { return contents(path(relative)); }

    static QByteArray contents(const QString &file)
    {
        QFile in(file);
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray();
    }

    /// The permission bits of a file, or -1 where there is none; links are not followed.
    static int mode(const QString &file)
    {
        struct stat status;
        return ::lstat(QFile::encodeName(file).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
    }

    /// A symbolic link's target text; empty where there is no link.
    static QByteArray linkTarget(const QString &file)
    {
        char target[4096];
        const ssize_t length = ::readlink(QFile::encodeName(file).constData(), target, sizeof target);
        return length < 0 ? QByteArray() : QByteArray(target, length);
    }

    /// What a folder holds, one line an item: a file's content, a link's target, a folder's slash.
    static QStringList listing(const QString &folder)
    {
        QStringList items;
        QDirIterator entries(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                             QDirIterator::Subdirectories);
        while (entries.hasNext()) {
            const QString path = entries.next();
            const QString name = QDir(folder).relativeFilePath(path);
            if (entries.fileInfo().isSymLink())
                items.append(name + " -> " + QString::fromUtf8(linkTarget(path)));
            else if (entries.fileInfo().isDir())
                items.append(name + u'/');
            else
                items.append(name + " = " + QString::fromUtf8(contents(path)));
        }
        items.sort();
        return items;
    }

private:
    QTemporaryDir m_directory;
};
