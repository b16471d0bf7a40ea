#include "Permissions.h"

#include <QFile>

#include <array>
#include <cerrno>
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
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) { }
}
