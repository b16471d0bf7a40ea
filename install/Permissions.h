#pragma once

#include <QString>

namespace zel {

/// Sets the mode of a folder and of all below it to 755, by running "/bin/chmod -R 755" on it directly: the path is an
/// argument, never text for a shell. Whether it worked is not reported.
void makeExecutableTree(const QString &path);

} // namespace zel
