// Whether the web engine can start.
#pragma once

#include <QString>

namespace zel {

/// Why the web engine must not be started, as one line; empty when nothing is known against it.
///
/// The engine does not report what it lacks: it ends the process, and the user's unsaved documents with it. What ends it
/// was found by trying (Qt 6.4) and is looked for beforehand:
///
/// - the superuser with the engine's sandbox on (`QTWEBENGINE_DISABLE_SANDBOX` or `--no-sandbox` turns it off, which is
///   the host's to decide and never done here);
/// - a sandbox without user namespaces, as in many containers and where the system reserves them for chosen programs;
/// - its process's program or its resources not being where the engine looks for them;
/// - shared memory (`/dev/shm`) that cannot be written.
///
/// What cannot be known: exhausted memory, threads or descriptors, and damaged files of the engine. Starts a process for
/// an instant, which only asks the kernel for a user namespace.
QString engineObstacle();

} // namespace zel
