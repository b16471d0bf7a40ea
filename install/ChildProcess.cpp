#include "ChildProcess.h"

#include "SignalShield.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <QFile>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

namespace zel {

namespace {

// What the new program starts with: our pipe as standard input, no descriptor of the host beyond the standard ones,
// and no signal ignored or blocked.
class SpawnSetup
{
public:
    explicit SpawnSetup(int input)
    {
        sigset_t all, none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
};

} // namespace

bool ChildProcess::launch(const QString &program, const QStringList &arguments)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const FileDescriptor output(ends[0]);
    m_input = FileDescriptor(ends[1]);

    QByteArrayList encoded{QFile::encodeName(program)};
    for (const QString &argument : arguments)
        encoded.append(QFile::encodeName(argument));
    std::vector<char *> pointers;
    for (QByteArray &argument : encoded)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    const SpawnSetup setup(output.get());
    const int failure =
        posix_spawn(&m_id, pointers[0], &setup.actions, &setup.attributes, pointers.data(), environ);
    return failure == 0;
}

bool ChildProcess::write(const char *data, size_t length)
{
    const SignalShield shield;
    while (length > 0) {
        const ssize_t written = ::write(m_input.get(), data, length);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            data += written;
            length -= size_t(written);
        }
    }
    return true;
}

int ChildProcess::wait()
{
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(m_id, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended < 0)
        return -1;
    return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace zel
