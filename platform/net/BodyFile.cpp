#include "BodyFile.h"

#include <QDir>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

namespace zel {

qint64 BodyFile::kept() const
{
    struct stat status;
    const bool known = !validator().isEmpty() && ::fstat(descriptor(), &status) == 0;
    return known ? qint64(status.st_size) : 0;
}

TemporaryBodyFile::TemporaryBodyFile(const QString &folder)
    : m_folder(QDir::cleanPath(folder))
    , m_file(m_folder + QStringLiteral("/XXXXXX.download"))
{
}

ZELError TemporaryBodyFile::open()
{
    QDir().mkpath(QFileInfo(m_folder).path());
    QDir().mkdir(m_folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // Asking for the name gives the file one: it may start without.
    const bool made =
        m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) && !m_file.fileName().isEmpty();
    return made
        ? ZELError()
        : ZELError::withMessage(
            QStringLiteral("cannot write the download in \"%1\": %2").arg(m_folder, m_file.errorString()));
}

bool TemporaryBodyFile::startAgain(const QByteArray &validator)
{
    setContinued(false);
    m_validator = validator;
    return ::ftruncate(descriptor(), 0) == 0;
}

} // namespace zel
