#include "FreeSpace.h"

#include "base/FileDescriptor.h"
#include "base/SystemFiles.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>

ZELError zel::requireSpace(const QString &folder, qint64 bytes)
{
    const FileDescriptor opened(
        ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened)
        return ZELError::fromErrno(QLatin1String("cannot read ") + folder, errno);
    const std::optional<std::int64_t> writable = writableBytes(opened.get());
    if (!writable || bytes <= *writable)
        return {};
    return ZELError::withMessage(QStringLiteral("too little free space in %1: %2 bytes are missing")
                                     .arg(folder)
                                     .arg(bytes - *writable));
}
