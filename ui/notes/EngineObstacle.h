// Whether the web engine can start.
#pragma once

#include <QString>

namespace zel {

/// Why the web engine must not be started, as one line; empty when nothing is known against it.
///
/// The engine does not report what it lacks: it ends the process, and the user's unsaved documents with it.
/// What ends it was found by trying (Qt 6.4) and is looked for beforehand:
///
/// - the superuser with the engine's sandbox on (`QTWEBENGINE_DISABLE_SANDBOX` or `--no-sandbox` turns it
///   off, which is the host's to decide and never done here);
/// - a system that gives user namespaces and then forbids what the sandbox does in them, as some do for all
///   but chosen programs (without any namespaces the engine goes on with less of a sandbox);
/// - its process's program or its resources not being where the engine looks for them;
/// - shared memory (`/dev/shm`) that cannot be written.
///
/// What cannot be known: exhausted memory, threads or descriptors, and damaged files of the engine. Starts a
/// process for an instant, which only asks the kernel for a user namespace and tries it.
QString engineObstacle();

} // namespace zel
