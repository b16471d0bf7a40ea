#include "Permissions.h"

#include "base/FileDescriptor.h"

#include <QFile>

#include <array>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

void zel::makeExecutableTree(const QString &path)
{
    QByteArray name = QFile::encodeName(path);
    char program[] = "/bin/chmod";
    char recursive[] = "-R";
    char mode[] = "755";
    char endOfOptions[] = "--";
    const std::array<char *, 6> arguments = {program, recursive, mode, endOfOptions, name.data(), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, program, nullptr, nullptr, arguments.data(), environ) != 0)
        return;
    uninterrupted([child] { return ::waitpid(child, nullptr, 0); });
}
