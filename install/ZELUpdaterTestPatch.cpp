#include "ZELUpdaterTestPatch.h"

#include "common/DDLog.h"
#include "MD5Digest.h"
#include "ZELUpdaterApplyPatch.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace {

QString hashOrEmpty(const QString &path)
{
    return zel::MD5FromFile(path).value_or(QString());
}

} // namespace

bool ZELUpdaterTestPatch(const QString &oldPath, const QString &newPath, const QString &patchPath,
                         const QString &expectedPath)
{
    QVariantList log;
    ZELUpdaterApplyPatch(oldPath, newPath, patchPath, log);
    bool result = zel::MD5Digest().result().has_value(); // without digests nothing is known to be equal
    const QDir expected(expectedPath);
    QDirIterator items(expectedPath, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (items.hasNext()) {
        const QString item = items.next();
        const QString relative = expected.relativeFilePath(item);
        const QString built = newPath + u'/' + relative;
        if (QFileInfo(built).isSymLink() || QFileInfo(item).isDir()
            || hashOrEmpty(item) == hashOrEmpty(built))
            continue;
        DDLogDebug(QStringLiteral("hash error"));
        DDLogDebug(relative);
        result = false;
    }
    zel::systemLog(result ? QStringLiteral("Successfully patched") : QStringLiteral("Patching failed"));
    return result;
}
