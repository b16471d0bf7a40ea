// The log goes to standard error with --verbose and nowhere otherwise. Diagnostics (the category of the
// system's log) are kept all the same, the last one: it is the only place where the reason of a failed
// request stands in words. Messages come from any thread.
#include "ToolLog.h"

#include "base/SafeText.h"
#include "common/DDLog.h"

#include <cstdio>
#include <cstring>
#include <mutex>

namespace zel::tool {

namespace {

std::mutex mutex;
QString last;
bool isShown = false;

void take(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const std::lock_guard lock(mutex);
    const bool isDiagnostic =
        context.category && std::strcmp(context.category, zelSystemLog().categoryName()) == 0;
    if (isDiagnostic)
        last = message;
    if (isDiagnostic && !isShown)
        return;
    const std::string line = safeText(qFormatLogMessage(type, context, message).toStdString()) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace

void installToolLog(bool shown)
{
    isShown = shown;
    if (!shown)
        QLoggingCategory::setFilterRules(QStringLiteral("zel.updater=false"));
    qInstallMessageHandler(take);
}

QString lastDiagnostic()
{
    const std::lock_guard lock(mutex);
    return last;
}

} // namespace zel::tool
