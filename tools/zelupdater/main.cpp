// zelupdater: makes, applies, inspects and serves updates.
#include "Command.h"
#include "DDLog.h"
#include "Interrupt.h"
#include "SafeText.h"

#include <QCoreApplication>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>

namespace {

void printUsage(FILE *stream)
{
    std::fprintf(stream, "Usage: zelupdater COMMAND ARGUMENTS [options]\n\nCommands:\n");
    for (const Command &command : allCommands()) {
        const QString words = command.name + u' ' + command.positionals.join(u' ');
        std::fprintf(stream, "  %s %s\n", qPrintable(words.leftJustified(36)), qPrintable(command.summary));
    }
    std::fprintf(stream, "\n'zelupdater COMMAND --help' shows a command's options.\n");
}

void quietUnlessAsked(const QStringList &words)
{
    if (!words.contains(QStringLiteral("--verbose")) && qEnvironmentVariableIsEmpty("QT_LOGGING_RULES"))
        QLoggingCategory::setFilterRules(QStringLiteral("zel.*=false"));
}

// The log, too, names what strangers named.
void showSafely(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const std::string line = zel::safeText(qFormatLogMessage(type, context, message).toStdString()) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
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
    setUtf8Locale();
    qInstallMessageHandler(showSafely);
    cleanUpWhenInterrupted();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zelupdater"));
    QStringList words = QCoreApplication::arguments();
    quietUnlessAsked(words);
    const QString name = words.value(1);
    if (name == QLatin1String("--help") || name == QLatin1String("-h") || name == QLatin1String("help")) {
        printUsage(stdout);
        return Done;
    }
    for (const Command &command : allCommands()) {
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
