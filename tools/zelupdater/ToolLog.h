// The updater's log, as the tool shows it.
#pragma once

#include <QString>

namespace zel::tool {

/// Leads the log to standard error when `shown`; otherwise nothing of it is seen. It names what strangers
/// named, so each message is shown as one line that is safe for a terminal.
void installToolLog(bool shown);

/// What the machine or the network last said against a step: the reason for a failure that has no words of
/// its own. Empty when nothing was said.
QString lastDiagnostic();

} // namespace zel::tool
