// zelupdater: makes, applies, inspects and serves updates.
//
// What comes before the first command is there because the tool runs anywhere: from services that have closed
// its standard streams, in locales without UTF-8, and under ^C at any moment.
#include "Commands.h"
#include "publish/Interrupt.h"
#include "ToolLog.h"

#include <QCoreApplication>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

using namespace zel;
using namespace zel::tool;

namespace {

// In the order in which help shows them.
const std::vector<ToolCommand> &allCommands()
{
    static const std::vector<ToolCommand> commands = [] {
        std::vector<ToolCommand> all;
        for (const auto &group : {deltaCommands(), patchCommands(), publishCommands(), updateCommands()})
            all.insert(all.end(), group.begin(), group.end());
        return all;
    }();
    return commands;
}

void printUsage(FILE *stream)
{
    std::fprintf(stream, "Usage: zelupdater COMMAND ARGUMENTS [options]\n\nCommands:\n");
    for (const ToolCommand &command : allCommands()) {
        const QString words = command.name + u' ' + command.positionals.join(u' ');
        std::fprintf(stream, "  %s %s\n", qPrintable(words.leftJustified(36)), qPrintable(command.summary));
    }
    std::fprintf(stream, "\n'zelupdater COMMAND --help' shows a command's options.\n");
}

// A descriptor that is closed goes to the next file that is opened, which standard output would then be
// written into.
void keepStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0) [[maybe_unused]]
            const int opened = ::open("/dev/null", O_RDONLY); // so that writing fails
    }
}

// Qt takes the locale for a UTF-8 one, and newer versions complain on standard error where it is none.
void setUtf8Locale()
{
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0)
        ::setenv("LC_ALL", "C.UTF-8", 1);
}

} // namespace

int main(int argc, char *argv[])
{
    keepStandardStreams();
    setUtf8Locale();
    cleanUpWhenInterrupted();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zelupdater"));
    QStringList words = QCoreApplication::arguments();
    installToolLog(words.contains(QStringLiteral("--verbose"))
                   || qEnvironmentVariableIsSet("QT_LOGGING_RULES"));
    const QString name = words.value(1);
    if (name == QLatin1String("--help") || name == QLatin1String("-h") || name == QLatin1String("help")) {
        printUsage(stdout);
        return finishOutput() ? Done : JobFailed;
    }
    for (const ToolCommand &command : allCommands()) {
        if (command.name != name)
            continue;
        words.removeAt(1);
        Arguments arguments(command);
        return arguments.parse(words) ? command.run(arguments) : int(WrongUsage);
    }
    if (!name.isEmpty())
        std::fprintf(stderr, "zelupdater: there is no command '%s'\n\n", qPrintable(name));
    printUsage(stderr);
    return WrongUsage;
}
