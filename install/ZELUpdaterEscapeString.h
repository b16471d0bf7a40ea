#pragma once

#include <ZELUpdater/ZELExport.h>

#include <QString>

/// Puts a backslash before every "(", ")", blank and "&", so that a plain path can stand as one word of a shell
/// command line. Nothing else is escaped (no quotes, "$", ";" or backslashes), which is why the updater itself runs
/// programs with their arguments and never through a shell: do not pass it names that others chose.
ZEL_EXPORT QString ZELUpdaterEscapeString(const QString &string);
