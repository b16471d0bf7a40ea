// zel-unpack -x -k - DIR: extracts the zip archive on standard input into a folder.
//
// The archive is stored, judged as a whole, and only then extracted. Exit status 0: all of it is there, with every
// link and time; 1: it is not, and one line on standard error says why; 2: wrong usage.
#include "DiskSpace.h"
#include "Extraction.h"
#include "Survey.h"

#include <clocale>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>

namespace zel {

static Problem openFolder(const char *path, FileDescriptor &folder)
{
    std::error_code failure;
    std::filesystem::create_directories(path, failure);
    folder = FileDescriptor(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder ? Problem() : systemProblem("cannot open the folder");
}

static Problem unpack(int input, const char *folder)
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
    return extractAll(directory, archive.file.get(), root.get());
}

} // namespace zel

int main(int argc, char *argv[])
{
    using namespace std::string_view_literals;
    if (argc != 5 || argv[1] != "-x"sv || argv[2] != "-k"sv || argv[3] != "-"sv || argv[4] == ""sv) {
        std::fputs("Usage: zel-unpack -x -k - DIR\n"
                   "Extracts the zip archive on standard input into the folder DIR.\n",
                   stderr);
        return 2;
    }
    std::setlocale(LC_CTYPE,
                   "C.UTF-8"); // names are compared without regard to case, whatever the user's locale
    if (const zel::Problem problem = zel::unpack(STDIN_FILENO, argv[4])) {
        std::fprintf(stderr, "zel-unpack: cannot extract into %s: %s\n", argv[4], problem->c_str());
        return 1;
    }
    return 0;
}
