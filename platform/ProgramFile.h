// The program that a bundle starts with.
#pragma once

#include "common/ZELError.h"

#include <QString>

namespace zel {

/// The path below the bundle of the program that its Info.plist names; null when it names none.
QString programPath(const QString &bundle);

/// Makes the program that the bundle's Info.plist names ("CFBundleExecutable", in `Contents/MacOS`) executable for all
/// who may read it, and readable and executable for its owner. A seal covers no modes, and so whoever brought the
/// bundle could have left the bit out. No link is followed, neither for the bundle nor below it: a program that is not
/// named, not there, behind a link or no regular file is left alone, which is no error. Safe from any thread.
ZELError ensureProgramIsExecutable(const QString &bundle);

} // namespace zel
