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

// A child's time comes through a pipe, its memory from the system.
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
    return Measurement{seconds, double(usage.ru_maxrss) / 1024, 0};
}

// All runs of one side so far; none once one has failed.
class Timings
{
public:
    void add(const Work &work, const std::filesystem::path &output)
    {
        std::optional<Measurement> once = m_failed ? std::nullopt : runOnce(work);
        std::error_code error;
        if (once && !output.empty())
            once->bytes = double(std::filesystem::file_size(output, error));
        m_failed = !once || error;
        if (!m_failed)
            m_all.push_back(*once);
    }

    std::optional<Measurement> medians() const
    {
        if (m_failed || m_all.empty())
            return std::nullopt;
        return Measurement{median(&Measurement::seconds), median(&Measurement::megabytes),
                           median(&Measurement::bytes)};
    }

private:
    double median(double Measurement::*field) const
    {
        std::vector<Measurement> all = m_all;
        std::ranges::sort(all, {}, field);
        return all[all.size() / 2].*field;
    }

    std::vector<Measurement> m_all;
    bool m_failed = false;
};

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

Work commandWithout(const std::filesystem::path &leftover, std::vector<std::string> arguments)
{
    return [leftover, work = command(std::move(arguments))](const auto &timed) {
        std::filesystem::remove_all(leftover);
        return work(timed);
    };
}

bool shell(const std::string &commands)
{
    return runCommand({"bash", "-o", "pipefail", "-ec", commands});
}

std::string shellWord(const std::filesystem::path &path)
{
    return '\'' + path.string() + '\''; // the benchmark's own folders have no quotes in their names
}

Result measure(const Row &row, int runs)
{
    Timings ours;
    std::vector<Timings> peers(row.peers.size());
    for (int i = 0; i < (row.slow ? std::min(runs, 3) : runs); ++i) {
        ours.add(row.work, row.output);
        for (size_t peer = 0; peer < peers.size(); ++peer)
            peers[peer].add(row.peers[peer].work, row.peers[peer].output);
    }
    Result result{ours.medians(), {}};
    for (const Timings &each : peers)
        result.peers.push_back(each.medians());
    return result;
}

} // namespace bench
