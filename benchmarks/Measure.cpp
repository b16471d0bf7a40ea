#include "Measure.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {
namespace {

double runTimed(const Work &work)
{
    using Clock = std::chrono::steady_clock;
    double seconds = -1;
    const auto timed = [&](const std::function<void()> &core) {
        const auto start = Clock::now();
        core();
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
    };
    return work(timed) ? seconds : -1;
}

/// A child's time comes through a pipe, its memory from the system.
std::optional<Measurement> runOnce(const Work &work)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    const pid_t child = ::fork();
    if (child == 0) {
        const double seconds = runTimed(work);
        const bool told = ::write(ends[1], &seconds, sizeof seconds) == sizeof seconds;
        ::_exit(told && seconds >= 0 ? 0 : 1);
    }
    ::close(ends[1]);
    double seconds = 0;
    const bool heard = ::read(ends[0], &seconds, sizeof seconds) == sizeof seconds;
    ::close(ends[0]);
    int status = 0;
    rusage usage{};
    if (child < 0 || ::wait4(child, &status, 0, &usage) != child || status != 0 || !heard)
        return std::nullopt;
    return Measurement{seconds, double(usage.ru_maxrss) / 1024};
}

template <typename Field> double median(std::vector<Measurement> all, Field field)
{
    std::ranges::sort(all, {}, field);
    return all[all.size() / 2].*field;
}

std::optional<Measurement> medians(const std::vector<Measurement> &all, int runs)
{
    if (all.empty() || int(all.size()) < runs)
        return std::nullopt;
    return Measurement{median(all, &Measurement::seconds), median(all, &Measurement::megabytes)};
}

bool runCommand(const std::vector<std::string> &arguments)
{
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

Work command(std::vector<std::string> arguments)
{
    return [arguments = std::move(arguments)](const auto &timed) {
        bool ok = false;
        timed([&] { ok = runCommand(arguments); });
        return ok;
    };
}

Result measure(const Row &row, int runs)
{
    std::vector<Measurement> ours;
    std::vector<Measurement> peer;
    for (int i = 0; i < runs; ++i) {
        if (const auto once = runOnce(row.ours))
            ours.push_back(*once);
        if (!row.peer)
            continue;
        if (const auto once = runOnce(row.peer))
            peer.push_back(*once);
    }
    return {medians(ours, runs), medians(peer, runs)};
}

} // namespace bench
