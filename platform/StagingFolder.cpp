#include "StagingFolder.h"

#include <QDir>
#include <QUuid>

namespace zel {

QString stagingRoot()
{
    return QDir::homePath() + QLatin1String("/Library/Application Support/Wexmoor 7/Patch");
}

QString newStagingPath(const QString &root)
{
    return root + u'/' + newUUID() + u'/';
}

QString newUUID()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

} // namespace zel
