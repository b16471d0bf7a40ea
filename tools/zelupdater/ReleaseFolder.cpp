#include "ReleaseFolder.h"

#include "ArchiveExtractor.h"
#include "BundleInfo.h"
#include "BundleSeal.h"
#include "FileTree.h"
#include "IntegerValue.h"
#include "MD5Digest.h"
#include "ZipWriter.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>

namespace zel {

namespace {

const QLatin1String FeedName("releases.json");

qint64 buildOf(const QJsonObject &record)
{
    return integerValue(record[QLatin1String("build")].toVariant());
}

// Records bear addresses, not names: a blank or a "#" in a name must not end the address.
QString addressOf(const QString &name)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(name));
}

QString nameOf(const QJsonValue &address)
{
    return QUrl::fromPercentEncoding(address.toString().toLatin1());
}

} // namespace

struct ReleaseFolder::Build {
    QString bundle;
    QString name; // of the application
    qint64 number = 0;
    QString version;

    static ZELError read(const QString &bundle, Build &build)
    {
        const std::optional<QVariantMap> info = bundleInfo(bundle);
        if (!info)
            return ZELError::withMessage(bundle + QLatin1String(" is not a bundle"));
        build.bundle = bundle;
        build.name = QFileInfo(bundle).completeBaseName();
        build.number = integerValue((*info)[QStringLiteral("CFBundleVersion")]);
        build.version = (*info)[QStringLiteral("CFBundleShortVersionString")].toString();
        if (build.number <= 0)
            return ZELError::withMessage(
                bundle + QLatin1String(" states no build: its Info.plist needs a CFBundleVersion above 0"));
        if (QFileInfo(bundle).suffix() != QLatin1String("app"))
            return ZELError::withMessage(
                bundle + QLatin1String(" must be named *.app: updaters find it in the archive by that"));
        if (const ZELError error = verifySeal(bundle))
            return ZELError::withMessage(error.message
                                         + QLatin1String("; seal the bundle with 'zelupdater sign' first"));
        return {};
    }
};

ZELError ReleaseFolder::read(QJsonArray &records) const
{
    if (!QFileInfo::exists(file(FeedName)))
        return {};
    const std::optional<QByteArray> bytes = readFile(file(FeedName));
    const QJsonDocument feed = QJsonDocument::fromJson(bytes.value_or(QByteArray()));
    if (!feed.isArray())
        return ZELError::withMessage(file(FeedName)
                                     + QLatin1String(" is not a feed: it must hold a JSON array"));
    records = feed.array();
    return {};
}

ZELError ReleaseFolder::add(const QString &bundle, const Options &options, QJsonObject &record) const
{
    Build build;
    if (const ZELError error = Build::read(bundle, build))
        return error;
    QJsonArray records;
    if (const ZELError error = read(records))
        return error;
    for (const QJsonValue known : std::as_const(records)) {
        if (buildOf(known.toObject()) == build.number)
            return ZELError::withMessage(
                QStringLiteral("build %1 is already in %2").arg(build.number).arg(m_path));
    }
    if (!QDir().mkpath(m_path))
        return ZELError::withMessage(QLatin1String("cannot make the folder ") + m_path);
    QStringList files;
    ZELError error = addFiles(build, records, options, record, files);
    if (!error) {
        records.append(record);
        error = writeFileAtomically(file(FeedName), QJsonDocument(records).toJson());
    }
    if (error) {
        for (const QString &name : std::as_const(files))
            QFile::remove(file(name));
    }
    return error;
}

ZELError ReleaseFolder::addFiles(const Build &build, const QJsonArray &records, const Options &options,
                                 QJsonObject &record, QStringList &files) const
{
    const QString stem = build.name + u'-' + QString::number(build.number);
    const QString archive = stem + QLatin1String(".zip");
    files.append(archive);
    if (const ZELError error = writeBundleZip(build.bundle, file(archive)))
        return error;
    if (const ZELError error = proveArchive(archive))
        return error;
    const qint64 size = QFileInfo(file(archive)).size();
    options.say(QStringLiteral("%1: %2").arg(
        archive, QLocale::c().formattedDataSize(size, 1, QLocale::DataSizeSIFormat)));
    record = {{QLatin1String("build"), build.number},
              {QLatin1String("version"), build.version},
              {QLatin1String("file"), addressOf(archive)},
              {QLatin1String("hash"), MD5FromFile(file(archive)).value_or(QString())}};
    QJsonArray patches;
    for (const QJsonValue earlier : records) {
        if (buildOf(earlier.toObject()) >= build.number)
            continue;
        if (const ZELError error = addPatch(build, earlier.toObject(), options, size, patches, files))
            return error;
    }
    record[QLatin1String("patches")] = patches;
    if (options.patchOnly && patches.isEmpty())
        options.say(QStringLiteral(
            "the build is offered to nobody: there is no patch, and it was asked for patches only"));
    if (!options.arch.isEmpty())
        record[QLatin1String("arch")] = options.arch;
    if (options.beta)
        record[QLatin1String("beta")] = true;
    if (options.patchOnly)
        record[QLatin1String("patchonly")] = true;
    if (options.notes.isEmpty())
        return {};
    const QString notes = stem + QLatin1String(".html");
    const std::optional<QByteArray> html = readFile(options.notes);
    if (!html)
        return ZELError::withMessage(QLatin1String("cannot read the notes ") + options.notes);
    files.append(notes);
    record[QLatin1String("history")] = addressOf(notes);
    return writeFileAtomically(file(notes), *html);
}

ZELError ReleaseFolder::proveArchive(const QString &archive) const
{
    const QTemporaryDir scratch(scratchPattern());
    if (!scratch.isValid())
        return cannotWrite(scratch);
    QString bundle;
    ZELError error = unpack(archive, scratch.path(), bundle);
    if (!error)
        error = verifySeal(bundle);
    return error ? ZELError::withMessage(archive + QLatin1String(" could not be installed: ") + error.message)
                 : ZELError();
}

ZELError ReleaseFolder::addPatch(const Build &build, const QJsonObject &earlier, const Options &options,
                                 qint64 archiveSize, QJsonArray &patches, QStringList &files) const
{
    const QTemporaryDir scratch(scratchPattern());
    if (!scratch.isValid())
        return cannotWrite(scratch);
    const QString from = QString::number(buildOf(earlier));
    const QString name = QStringLiteral("%1-%2-to-%3.zelpatch").arg(build.name, from).arg(build.number);
    const auto leftOut = [&](const QString &why) {
        options.say(QStringLiteral("no patch from build %1: %2").arg(from, why));
        QFile::remove(file(name));
        return ZELError();
    };
    QString oldBundle;
    const QString archive = nameOf(earlier[QLatin1String("file")]);
    if (const ZELError error = unpack(archive, scratch.path(), oldBundle))
        return leftOut(error.message);
    PatchMakerOptions makerOptions;
    makerOptions.memory = options.memory;
    makerOptions.progress = options.progress;
    PatchSummary summary;
    if (const ZELError error = makePatch(oldBundle, build.bundle, file(name), makerOptions, summary))
        return leftOut(error.message);
    if (summary.size >= archiveSize && !options.patchOnly)
        return leftOut(QStringLiteral("it would be no smaller than the archive"));
    files.append(name);
    patches.append(QJsonObject{{QLatin1String("build"), buildOf(earlier)},
                               {QLatin1String("file"), addressOf(name)},
                               {QLatin1String("hash"), MD5FromFile(file(name)).value_or(QString())}});
    options.say(QStringLiteral("%1: %2").arg(
        name, QLocale::c().formattedDataSize(summary.size, 1, QLocale::DataSizeSIFormat)));
    return {};
}

ZELError ReleaseFolder::unpack(const QString &archive, const QString &folder, QString &bundle) const
{
    ZELError error;
    if (!QFileInfo::exists(file(archive)))
        return ZELError::withMessage(file(archive) + QLatin1String(" is gone"));
    extractArchive(file(archive), folder, [&](bool, const QString &path, const ZELError &failed) {
        bundle = path;
        error = failed;
    });
    return error;
}

ZELError ReleaseFolder::cannotWrite(const QTemporaryDir &scratch) const
{
    return ZELError::withMessage(QLatin1String("cannot write to ") + m_path + QLatin1String(": ")
                                 + scratch.errorString());
}

} // namespace zel
