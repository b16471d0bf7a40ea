// zel-unpack -x -k - DIR: extracts the zip archive on standard input into a folder.
//
// The archive is stored, judged as a whole, and only then extracted. Exit status 0: all of it is there, with every
// link and time; 1: it is not, and one line on standard error says why; 2: wrong usage.
#include "base/SystemCalls.h"
#include "Extraction.h"
#include "Reporter.h"
#include "SafetyCheck.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <new>

namespace zel {

// A file that is opened must never take the place of a standard stream that the tool was started without: messages
// would be written into it.
static void fillStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0)
            ::open("/dev/null", O_RDWR); // takes the lowest free number, which is this one
    }
}

static Problem openFolder(const char *path, FileDescriptor &folder)
{
    std::error_code failure;
    std::filesystem::create_directories(path, failure);
    folder = FileDescriptor(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? Problem() : systemProblem("cannot open the folder");
}

static Problem unpack(int input, const char *folder, Reporter &reporter)
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
    if (Problem problem = survey(directory, reader))
        return problem;
    const std::optional<int64_t> writable = writableBytes(root.get());
    if (Problem problem = writable ? judgeRoom(directory, uint64_t(*writable)) : Problem())
        return problem;
    return extractAll(directory, archive.file.get(), root.get(), [&] { reporter.progress(); });
}

static int run(const char *folder, Reporter &reporter)
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
