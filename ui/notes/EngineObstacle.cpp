// Each function looks for one thing where the engine looks for it, for the engine answers what it misses by
// ending the process. A check that is too strict costs the notes, one that is too lax the user's documents.
#include "EngineObstacle.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibraryInfo>
#include <QProcess>

#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace zel {

namespace {

// The arguments that the engine reads: its own variable or, without it, the host's after a marker.
QStringList engineArguments()
{
    const QString flags = qEnvironmentVariable("QTWEBENGINE_CHROMIUM_FLAGS");
    if (!flags.isEmpty())
        return QProcess::splitCommand(flags);
    const QStringList arguments = QCoreApplication::arguments();
    const qsizetype marker = arguments.indexOf(QStringLiteral("--webEngineArgs"));
    return marker < 0 ? QStringList() : arguments.mid(marker + 1);
}

bool isSandboxOff()
{
    return qEnvironmentVariableIsSet("QTWEBENGINE_DISABLE_SANDBOX")
        || engineArguments().contains(QStringLiteral("--no-sandbox"));
}

bool writeText(const char *file, const char *text)
{
    const int descriptor = open(file, O_WRONLY | O_CLOEXEC);
    const auto length = ssize_t(strlen(text));
    return descriptor >= 0 && write(descriptor, text, size_t(length)) == length;
}

enum Trial { Works = 0, NoMaps = 1, Forbidden = 2 };

// What the sandbox does first, in a process that is in a new user namespace already. Only system calls: the
// host's other threads may have held any lock when it was made.
Trial tryNamespace(const char *userMap)
{
    if (!writeText("/proc/self/setgroups", "deny") || !writeText("/proc/self/uid_map", userMap))
        return NoMaps;
    return chroot("/proc/self/fdinfo") == 0 ? Works : Forbidden;
}

// Without namespaces the engine does without; those that it gets must let it do what they are for.
bool areNamespacesUsable()
{
    char userMap[32];
    std::snprintf(userMap, sizeof userMap, "%u %u 1", geteuid(), geteuid());
    // Without a signal at its end, the process is no business of the host's handler and waits for nobody
    // else.
    const auto child = pid_t(syscall(SYS_clone, CLONE_NEWUSER, nullptr, nullptr, nullptr, nullptr));
    if (child == 0)
        _exit(tryNamespace(userMap));
    int status = 0;
    pid_t ended = 0;
    do
        ended = child < 0 ? -1 : waitpid(child, &status, __WCLONE);
    while (child > 0 && ended < 0 && errno == EINTR);
    return child < 0 || (ended == child && WIFEXITED(status) && WEXITSTATUS(status) != Forbidden);
}

bool hasProgram()
{
    const QString name = QStringLiteral("/QtWebEngineProcess");
    const QString chosen = qEnvironmentVariable("QTWEBENGINEPROCESS_PATH");
    QStringList places{chosen};
    if (chosen.isEmpty())
        places = {QLibraryInfo::path(QLibraryInfo::LibraryExecutablesPath) + name,
                  QLibraryInfo::path(QLibraryInfo::BinariesPath) + name,
                  QCoreApplication::applicationDirPath() + name};
    // The engine takes the first that is there.
    for (const QString &place : places) {
        if (const QFileInfo file(place); file.exists())
            return file.isFile() && file.isExecutable();
    }
    return false;
}

bool hasResources()
{
    const QString chosen = qEnvironmentVariable("QTWEBENGINE_RESOURCES_PATH");
    QStringList folders{chosen};
    if (chosen.isEmpty()) {
        const QString data = QLibraryInfo::path(QLibraryInfo::DataPath);
        folders = {data + QStringLiteral("/resources"), data, QCoreApplication::applicationDirPath(),
                   QDir::homePath() + QStringLiteral("/.") + QCoreApplication::applicationName()};
    }
    for (const QString &folder : folders) {
        if (const QFileInfo file(folder + QStringLiteral("/qtwebengine_resources.pak")); file.exists())
            return file.isReadable() && file.size() > 0;
    }
    return false;
}

} // namespace

QString engineObstacle()
{
    if (!isSandboxOff() && geteuid() == 0)
        return QStringLiteral("the web engine's sandbox does not run for the superuser");
    if (!isSandboxOff() && !areNamespacesUsable())
        return QStringLiteral("the web engine's sandbox may not use the user namespaces that it gets");
    if (!hasProgram())
        return QStringLiteral("the web engine's process (QtWebEngineProcess) is missing");
    if (!hasResources())
        return QStringLiteral("the web engine's resources (qtwebengine_resources.pak) are missing");
    if (access("/dev/shm", W_OK | X_OK) != 0)
        return QStringLiteral("the web engine's shared memory (/dev/shm) cannot be written");
    return {};
}

} // namespace zel
