// What several commands take: paths, bundles, and the options that they share.
#pragma once

#include "Arguments.h"
#include "publish/SignedFeed.h"

namespace zel::tool {

/// A path of the user's, from the root and without "." and "..".
QString absolute(const QString &path);

/// Why a file cannot be read; a null string when it can.
QString unreadable(const QString &path);

/// Why a folder is no bundle; a null string when it is one. Without an Info.plist a build would pass for 0,
/// and everything for new.
QString bundleProblem(const QString &path);

/// --memory, for the commands that make patches, and its value in bytes; wrong usage is reported and gives
/// nothing.
QCommandLineOption memoryOption();
std::optional<qint64> memoryBudget(const Arguments &arguments);

/// Shows on a terminal what the patch maker is at.
void showPatchProgress(const QString &step, qint64 done, qint64 total);

/// --signer, for the commands that accept seals and records, and its values: fingerprints, or the word `also`
/// where there is one. Wrong usage is reported and gives nothing.
QCommandLineOption signerOption(const QString &also = {});
std::optional<QStringList> acceptedSigners(const Arguments &arguments, const QString &also = {});

/// --key and --cert, for the commands that sign: pairs, in the order in which they are given. False after
/// what could not be read, or is no pair, which is reported; `status` is the command's then.
QList<QCommandLineOption> keyOptions();
bool readSigners(const Arguments &arguments, QList<Signer> &signers, int &status);

/// The builds that an option names, by commas or repeated. False after wrong usage, which is reported.
bool readBuilds(const Arguments &arguments, const QString &option, QList<qint64> &builds);

/// --valid and the options that tell who signed a feed before, for the commands that sign one, and all that
/// they say with the above.
QList<QCommandLineOption> feedOptions();
bool readSigning(const Arguments &arguments, FeedSigning &signing, int &status);

} // namespace zel::tool
