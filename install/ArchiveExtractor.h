// The extraction of a downloaded archive by the archive tool.
#pragma once

#include "ZELCompletions.h"

namespace zel {

/// The archive tool, `zel-unpack`: beside the binary that this code is in, else in that folder's `../libexec`, else
/// where it is installed. Always a full path: the user's search path has no say in what is run.
QString archiveTool();

/// Extracts the zip archive `file` into the folder `directory`, which is made when it is missing, and finds the
/// application bundle below it: the first item, at any depth and in the file system's order, whose extension is
/// "app". The folder should be empty, because what lay in it before may be found too.
///
/// The archive is piped to the tool in chunks of 256 KiB and never held in memory. Blocks until the tool has
/// exited; call it off the main thread. `completion` (which may be empty) is called exactly once, on the calling
/// thread, before the function returns:
/// - true and the bundle's path: extracted;
/// - true, a null path and an error: extracted, but there is no bundle;
/// - false, a null path and an error: the tool could not be launched, ended with a status other than 0 (or by a
///   signal, whose number is the status then), or left part of the archive unread.
///
/// The tool writes its messages to the host's standard error. The host's signal handlers and masks stay as they
/// are; a host that ignores SIGCHLD or collects every child by itself hides the tool's status, which then counts
/// as a failure with status -1.
void extractArchive(const QString &file, const QString &directory, const ZELExtractCompletion &completion,
                    const QString &tool = archiveTool());

} // namespace zel
