// How checks and the steps of an update report their end: each calls its completion exactly once.
#pragma once

#include <ZELUpdater/ZELError.h>

#include <QVariantMap>

#include <functional>

/// The end of a check: a `ZELStatus`, the check result, and a reserved value that is always null.
using ZELCheckCompletion =
    std::function<void(qint64 status, const QVariantMap &result, const QVariant &reserved)>;

/// The end of an extraction: whether the archive was extracted, the bundle's path, what went wrong. Judge by
/// the path: an archive that was extracted but holds no bundle reports true, a null path and an error.
using ZELExtractCompletion = std::function<void(bool ok, const QString &path, const ZELError &error)>;

/// The end of a download: a `ZELDownloadStatus` and the path of the new bundle; a null string stands for no
/// path.
using ZELDownloadCompletion = std::function<void(qint64 status, const QString &path)>;

/// The end of an installation: a `ZELDownloadStatus` and the path of the new bundle; a null string stands for
/// no path.
using ZELInstallCompletion = std::function<void(qint64 status, const QString &path)>;
