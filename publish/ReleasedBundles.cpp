#include "ReleasedBundles.h"

#include "common/UpdateRecord.h"
#include "FeedRecord.h"
#include "install/ArchiveExtractor.h"

#include <QDir>

namespace zel {

ZELError ReleasedBundles::unpack(QJsonObject &record, QString &bundle)
{
    const QString name = nameOf(record[key::File]);
    if (const auto known = m_unpacked.constFind(name); known != m_unpacked.constEnd()) {
        bundle = known->bundle;
        return mergeFacts(record, known->archive, record);
    }
    const QString place = QStringLiteral("%1/released-%2").arg(m_scratch).arg(m_unpacked.size());
    const QString copy = place + QLatin1String(".zip");
    ZELError error = describeFile(m_folder, record, record, copy);
    if (error)
        return error;
    error = unpackArchive(copy, place, bundle);
    QFile::remove(copy);
    if (error)
        return recordError(record,
                           QStringLiteral("its archive cannot be read: %1; bring it back, or take the record "
                                          "out of releases.json")
                               .arg(error.message));
    m_unpacked[name] = {record, bundle};
    return {};
}

ZELError unpackArchive(const QString &archive, const QString &folder, QString &bundle)
{
    ZELError error;
    QDir().mkpath(folder);
    extractArchive(archive, folder, [&](bool, const QString &path, const ZELError &failed) {
        bundle = path;
        error = failed;
    });
    return error;
}

} // namespace zel
