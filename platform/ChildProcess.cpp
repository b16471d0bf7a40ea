// The host owns the process: its SIGCHLD, its descriptors, its signal mask. A handler that collects every
// child takes the exit status away; so a program is watched through a pidfd, which stays this program's even
// when its number is another's, and reports its status by a pipe as well. Nothing of the host is inherited
// but the standard streams.
//
// A program that hangs is told from one that is slow by its progress alone: every wait has an end that each
// sign of progress moves on. QProcess was rejected, which knows no such end and is bound to the thread that
// made it, while `kill` comes from any.
#include "ChildProcess.h"

#include "base/SignalShield.h"
#include "base/SystemCalls.h"
#include "base/ToolReport.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <vector>

namespace zel {

namespace {

constexpr int ReportDescriptor = STDERR_FILENO + 1;
constexpr std::chrono::seconds TimeToDie(5);

// Both ends are closed in every program that another thread of the host starts meanwhile, and ours never
// blocks.
struct Pipe {
    Pipe() { makePipe(reading, writing); }

    FileDescriptor reading;
    FileDescriptor writing;
};

bool neverBlock(const FileDescriptor &descriptor)
{
    return ::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK) == 0;
}

// What the new program starts with: our pipes, no descriptor of the host beyond the standard ones, and no
// signal ignored or blocked.
class SpawnSetup
{
public:
    SpawnSetup(int input, int reports)
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
        posix_spawn_file_actions_adddup2(&actions, reports, ReportDescriptor);
        posix_spawn_file_actions_addclosefrom_np(&actions, ReportDescriptor + 1);
        environment.push_back(m_reportSetting.data()); // comes first and so counts
        for (char **setting = environ; *setting; ++setting)
            environment.push_back(*setting);
        environment.push_back(nullptr);
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
    std::vector<char *> environment;

private:
    std::string m_reportSetting = std::string(ReportVariable) + '=' + std::to_string(ReportDescriptor);
};

// How long is left, as `poll` wants it: rounded up, never negative and so never endless.
int millisecondsUntil(std::chrono::steady_clock::time_point end)
{
    using namespace std::chrono;
    const auto left = ceil<milliseconds>(end - steady_clock::now()).count();
    return int(std::clamp<long long>(left, 0, std::numeric_limits<int>::max()));
}

} // namespace

bool ChildProcess::launch(const QString &program, const QStringList &arguments)
{
    Pipe input, reports;
    if (!input.writing || !reports.writing || !neverBlock(input.writing) || !neverBlock(reports.reading))
        return false;

    QByteArrayList encoded{QFile::encodeName(program)};
    for (const QString &argument : arguments)
        encoded.append(QFile::encodeName(argument));
    std::vector<char *> pointers;
    for (QByteArray &argument : encoded)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    SpawnSetup setup(input.reading.get(), reports.writing.get());
    pid_t id = -1;
    if (posix_spawn(&id, pointers[0], &setup.actions, &setup.attributes, pointers.data(),
                    setup.environment.data())
        != 0)
        return false;
    m_handle = FileDescriptor(int(::syscall(SYS_pidfd_open, id, 0)));
    if (!m_handle && errno != ESRCH) { // there is no other way to watch it
        ::kill(id, SIGKILL);
        ::waitpid(id, nullptr, 0);
        return false;
    }
    m_input = std::move(input.writing);
    m_reports = std::move(reports.reading);
    return true;
}

bool ChildProcess::write(const char *data, size_t length)
{
    const SignalShield shield;
    while (length > 0) {
        const ssize_t written = ::write(m_input.get(), data, length);
        if (written >= 0) {
            data += written;
            length -= size_t(written);
        } else if (errno == EAGAIN ? !awaitRoom() : errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool ChildProcess::awaitRoom()
{
    const auto end = Clock::now() + m_patience;
    for (;;) {
        pollfd input{m_input.get(), POLLOUT, 0};
        const int ready = ::poll(&input, 1, millisecondsUntil(end));
        if (ready > 0)
            return true; // that nobody reads any more shows when it is written to
        if (ready < 0 && errno == EINTR)
            continue;
        giveUp();
        errno = ETIMEDOUT;
        return false;
    }
}

int ChildProcess::wait()
{
    if (!awaitEnd(m_patience)) {
        giveUp();
        awaitEnd(TimeToDie);
    }
    return status();
}

// False when neither the end nor any progress came for as long as `patience`.
bool ChildProcess::awaitEnd(std::chrono::milliseconds patience)
{
    auto end = Clock::now() + patience;
    while (m_handle) {
        pollfd events[] = {{m_handle.get(), POLLIN, 0}, {m_reports.get(), POLLIN, 0}};
        const int ready = ::poll(events, std::size(events), millisecondsUntil(end));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        if (events[0].revents != 0)
            break;
        if (readReports())
            end = Clock::now() + patience;
        else
            m_reports.close();
    }
    return true;
}

// False when the program has ended its reports.
bool ChildProcess::readReports()
{
    char words[4096];
    const ssize_t length = ::read(m_reports.get(), words, sizeof words);
    for (ssize_t i = 0; i < length; ++i) {
        if (words[i] != ReportedProgress)
            m_ReportedStatus = words[i] - ReportedStatus;
    }
    return length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR));
}

void ChildProcess::giveUp()
{
    m_outOfPatience = true;
    kill();
}

void ChildProcess::kill()
{
    if (m_handle) {
        m_killed = true;
        ::syscall(SYS_pidfd_send_signal, m_handle.get(), SIGKILL, nullptr, 0);
    }
}

int ChildProcess::status()
{
    siginfo_t info{};
    if (m_handle && ::waitid(P_PIDFD, id_t(m_handle.get()), &info, WEXITED | WNOHANG) == 0
        && info.si_pid != 0)
        return info.si_status; // the exit status or the signal's number
    if (m_reports)
        readReports();
    return m_ReportedStatus.value_or(m_killed ? SIGKILL : -1);
}

} // namespace zel
