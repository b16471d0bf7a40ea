// zel-unpack -x -k - DIR: extracts the zip archive on standard input into a folder.
//
// The archive is stored, judged as a whole, and only then extracted. Exit status 0: all of it is there, with
// every link and time; 1: it is not, and one line on standard error says why; 2: wrong usage.
#include "base/SystemCalls.h"
#include "base/ToolReport.h"
#include "EntryReader.h"
#include "Extraction.h"
#include "SafetyCheck.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

// Reports as base/ToolReport.h describes, where somebody wants to hear it. When nobody is left to hear it,
// SIGPIPE ends the tool: whoever wanted the archive is gone.
class Reporter
{
public:
    // Takes the pipe from the environment. Without one, nothing is ever written.
    Reporter();

    // Says that there is progress, at most once a second; from any thread.
    void progress();

    // Says with which status the tool is about to end.
    void ending(int status);

private:
    void say(char word);

    int m_pipe = -1;
    std::atomic<int64_t> m_lastSecond = 0;
};

Reporter::Reporter()
{
    const char *named = std::getenv(ReportVariable);
    if (!named)
        return;
    const std::string_view text = named;
    int descriptor = -1;
    struct stat status;
    if (std::from_chars(text.data(), text.data() + text.size(), descriptor).ptr == text.data() + text.size()
        && ::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode))
        m_pipe = descriptor;
}

void Reporter::progress()
{
    using namespace std::chrono;
    const int64_t now = duration_cast<seconds>(steady_clock::now().time_since_epoch()).count();
    int64_t last = m_lastSecond;
    if (now != last && m_lastSecond.compare_exchange_strong(last, now))
        say(ReportedProgress);
}

void Reporter::ending(int status)
{
    say(char(ReportedStatus + status));
}

void Reporter::say(char word)
{
    if (m_pipe >= 0)
        writeAll(m_pipe, &word, 1);
}

// A file that is opened must never take the place of a standard stream that the tool was started without:
// messages would be written into it.
void fillStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0)
            ::open("/dev/null", O_RDWR); // takes the lowest free number, which is this one
    }
}

Problem openFolder(const char *path, FileDescriptor &folder)
{
    std::error_code failure;
    std::filesystem::create_directories(path, failure);
    folder = FileDescriptor(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? Problem() : systemProblem("cannot open the folder");
}

Problem unpack(int input, const char *folder, Reporter &reporter)
{
    FileDescriptor root;
    if (Problem problem = openFolder(folder, root))
        return problem;
    Spool archive;
    if (Problem problem = spoolInput(input, folder, archive))
        return problem;
    ZipDirectory directory;
    if (Problem problem = directory.read(archive))
        return problem;
    EntryReader reader(archive.file.get(), directory.dataEnd());
    if (Problem problem = checkSafety(directory, reader))
        return problem;
    const std::optional<int64_t> writable = writableBytes(root.get());
    if (Problem problem = writable ? judgeRoom(directory, uint64_t(*writable)) : Problem())
        return problem;
    return extractAll(directory, archive.file.get(), root.get(), [&] { reporter.progress(); });
}

int run(const char *folder, Reporter &reporter)
{
    Problem problem;
    try {
        problem = unpack(STDIN_FILENO, folder, reporter);
    } catch (const std::bad_alloc &) {
        problem = tooLittleMemory();
    }
    if (problem)
        std::fprintf(stderr, "zel-unpack: cannot extract into %s: %s\n", folder, problem->c_str());
    return problem ? 1 : 0;
}

} // namespace

} // namespace zel

int main(int argc, char *argv[])
{
    using namespace std::string_view_literals;
    zel::fillStandardStreams();
    if (argc != 5 || argv[1] != "-x"sv || argv[2] != "-k"sv || argv[3] != "-"sv || argv[4] == ""sv) {
        std::fputs("Usage: zel-unpack -x -k - DIR\n"
                   "Extracts the zip archive on standard input into the folder DIR.\n",
                   stderr);
        return 2;
    }
    // Names are compared without regard to case, whatever the user's locale.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    // A write beyond a limit on the size of files is to fail as one to a full disk does.
    std::signal(SIGXFSZ, SIG_IGN);
    zel::Reporter reporter;
    const int status = zel::run(argv[4], reporter);
    reporter.ending(status);
    return status;
}
