// The updater's log: asynchronous, in order, handed to Qt's logging.
#pragma once

#include <QLoggingCategory>
#include <QString>

Q_DECLARE_LOGGING_CATEGORY(zelUpdaterLog) // "zel.updater": what the flows decide (info) and do (debug)
Q_DECLARE_LOGGING_CATEGORY(zelSystemLog) // "zel.system": raw diagnostics of the machine

enum class DDLogFlag { Info, Debug };

/// The log of the flows. Messages are written by a thread of the logger's own, in the order of the calls,
/// with the place of the call, to the category "zel.updater"; the host sees them in its Qt message handler,
/// which is therefore called from that thread. What is still queued at exit is written then; what is logged
/// later is dropped.
///
/// Whoever logs never waits for the handler. A message longer than 16,384 characters is cut. When 20,000
/// messages or 4 MiB wait, those that come are left out until all that waits is written; then one line says
/// how many they were.
class DDLog
{
public:
    static void log(DDLogFlag flag, const char *file, const char *function, int line, const QString &message);

    /// Returns when everything logged before the call has been written.
    static void flushLog();

    /// Makes what the log needs. Whatever may log while the process exits calls this when it is made itself:
    /// what is made first ends last.
    static void prepare();
};

#define DDLogInfo(message) DDLog::log(DDLogFlag::Info, __FILE__, Q_FUNC_INFO, __LINE__, (message))
#define DDLogDebug(message) DDLog::log(DDLogFlag::Debug, __FILE__, Q_FUNC_INFO, __LINE__, (message))

namespace zel {

/// Writes one line to the category "zel.system", at once; nothing once the log has ended.
void systemLog(const QString &message);

} // namespace zel
