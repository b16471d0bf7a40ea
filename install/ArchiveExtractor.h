// The extraction of a downloaded archive by the archive tool.
#pragma once

#include "common/ZELCompletions.h"

#include <chrono>
#include <stop_token>

namespace zel {

/// The archive tool, `zel-unpack`: beside the binary that this code is in, else in that folder's
/// `../libexec`, else where it is installed. Always a full path: the user's search path has no say in what is
/// run.
QString archiveTool();

struct ExtractOptions {
    QString tool = archiveTool(); ///< what to run
    std::chrono::milliseconds patience = std::chrono::minutes(2); ///< with a tool that makes no progress
    std::stop_token stop = {}; ///< a request ends the tool at once, and the extraction with it
};

/// The first real folder below a folder, `MaxFolderDepth` folders deep at most and in the file system's
/// order, whose extension is "app"; null when there is none. Files and links of such a name are passed over.
QString findBundle(const QString &directory);

/// Extracts the zip archive `file` into the folder `directory`, which is made when it is missing, and finds
/// the application bundle below it. The folder should be empty, because what lay in it before may be found
/// too.
///
/// The archive is piped to the tool in chunks of 256 KiB and never held in memory. Blocks until the tool has
/// exited or was ended, for a request or for making no progress (see ChildProcess); call it off the main
/// thread. `completion` (which may be empty) is called exactly once, on the calling thread, before the
/// function returns:
/// - true and the bundle's path: extracted;
/// - true, a null path and an error: extracted, but there is no bundle;
/// - false, a null path and an error: the tool could not be launched, ended with a status other than 0 (or by
///   a signal, whose number is the status then: 9 for one that was ended here), or left part of the archive
///   unread.
///
/// The tool writes its messages to the host's standard error. The host's signal handlers and masks stay as
/// they are, and it may ignore SIGCHLD or collect every child by itself.
void extractArchive(const QString &file, const QString &directory, const ZELExtractCompletion &completion,
                    const ExtractOptions &options = {});

} // namespace zel
