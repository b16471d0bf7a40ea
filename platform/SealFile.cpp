#include "SealFile.h"

#include <QFile>

namespace zel {

SealFile::SealFile(const QString &path, qint64 rememberedSize)
    : m_file(path)
{
    QFile previous(path);
    if (previous.size() <= rememberedSize && previous.open(QIODevice::ReadOnly))
        m_previous = previous.readAll();
}

ZELError SealFile::writeAside(const QByteArray &bytes)
{
    const bool written = m_file.open(QIODevice::WriteOnly) && m_file.write(bytes) == bytes.size();
    return written && m_file.flush() ? ZELError() : failure();
}

ZELError SealFile::moveIntoPlace()
{
    m_moved = m_file.commit();
    return m_moved ? ZELError() : failure();
}

void SealFile::putBack()
{
    QSaveFile file(m_file.fileName());
    if (m_moved && !m_previous)
        QFile::remove(m_file.fileName());
    else if (m_moved && file.open(QIODevice::WriteOnly) && file.write(*m_previous) == m_previous->size())
        file.commit();
}

ZELError SealFile::failure() const
{
    return ZELError::withMessage(QLatin1String("cannot write ") + m_file.fileName() + QLatin1String(": ")
                                 + m_file.errorString());
}

} // namespace zel
