#include "BundleInfo.h"

#include "common/IntegerValue.h"
#include "PropertyList.h"
#include "RealFolder.h"

#include <QFile>
#include <QFileInfo>

namespace {

constexpr qint64 MaxInfoSize = 4 << 20;
const QString InnerInfo = QStringLiteral("/Contents/Info.plist");
const QString OuterInfo = QStringLiteral("/Info.plist");

QVariantMap readInfo(const QString &path)
{
    if (!QFileInfo(path).isFile()) // opening a pipe would wait for its writer
        return {};
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.read(MaxInfoSize + 1);
    if (bytes.size() > MaxInfoSize)
        return {};
    return zel::readPropertyList(bytes).value_or(QVariantMap());
}

} // namespace

namespace zel {

bool isRealBundle(const QString &path)
{
    return bool(openRealFolder(path));
}

QString contentsFolder(const QString &bundle)
{
    const QString contents = bundle + QLatin1String("/Contents");
    return QFileInfo(contents).isDir() ? contents : bundle;
}

std::optional<QVariantMap> bundleInfo(const QString &bundle)
{
    if (!QFileInfo(bundle).isDir())
        return std::nullopt;
    return readInfo(bundle + (QFileInfo::exists(bundle + InnerInfo) ? InnerInfo : OuterInfo));
}

bool hasInfo(const QString &bundle)
{
    const auto stands = [](const QFileInfo &item) { return item.exists() || item.isSymLink(); };
    return stands(QFileInfo(bundle + InnerInfo)) || stands(QFileInfo(bundle + OuterInfo));
}

std::optional<qint64> bundleBuild(const QString &bundle)
{
    const std::optional<QVariantMap> info = bundleInfo(bundle);
    if (!info)
        return std::nullopt;
    return integerValue(info->value(QStringLiteral("CFBundleVersion")));
}

} // namespace zel
