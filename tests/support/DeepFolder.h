// Folders nested more deeply than a path can say.
#pragma once

#include "base/FileDescriptor.h"

#include <fcntl.h>
#include <QByteArray>
#include <QFile>
#include <sys/stat.h>

/// Makes folders nested in each other below an existing one, all of one name, and opens the innermost. What
/// removes a temporary tree may not be able to remove them: a test that makes very many must see to it.
inline zel::FileDescriptor makeDeepFolder(const QString &top, int levels, const QByteArray &name = "d")
{
    zel::FileDescriptor folder(::open(QFile::encodeName(top).constData(), O_RDONLY | O_DIRECTORY));
    for (int i = 0; i < levels; ++i) {
        if (::mkdirat(folder.get(), name.constData(), 0755) != 0)
            qFatal("cannot make a folder at depth %d", i);
        folder = zel::FileDescriptor(::openat(folder.get(), name.constData(), O_RDONLY | O_DIRECTORY));
    }
    return folder;
}
