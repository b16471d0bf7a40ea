// The updater logs on a thread of its own, but Qt Test's message handler names the row that runs without a
// lock. So the log is off in tests, unless a LogCapture lives (or QT_LOGGING_RULES turns it on for a look).
#include <QCoreApplication>
#include <QLoggingCategory>

static void silenceLog()
{
    QLoggingCategory::setFilterRules(QStringLiteral("zel.*=false"));
}
Q_COREAPP_STARTUP_FUNCTION(silenceLog)
