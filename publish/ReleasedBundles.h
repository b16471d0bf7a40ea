// The bundles that a feed's archives hold.
#pragma once

#include "common/ZELError.h"

#include <QJsonObject>
#include <QMap>
#include <QString>

namespace zel {

/// Unpacks archives of a release folder in a folder that nobody else may write to, and each once, however
/// often it is asked for. All of them stay until that folder goes.
class ReleasedBundles
{
public:
    ReleasedBundles(const QString &folder, const QString &scratch)
        : m_folder(folder)
        , m_scratch(scratch)
    {
    }

    /// The bundle in a record's archive, which has to be what the record says of it; the record receives what
    /// it does not say (FeedRecord.h). Both is of one copy.
    ZELError unpack(QJsonObject &record, QString &bundle);

private:
    struct Unpacked {
        QJsonObject archive; // as a record describes it
        QString bundle;
    };

    const QString m_folder;
    const QString m_scratch;
    QMap<QString, Unpacked> m_unpacked; // by the archives' names
};

/// Unpacks an archive into a folder, which is made. An error, too, where it holds no bundle.
ZELError unpackArchive(const QString &archive, const QString &folder, QString &bundle);

} // namespace zel
