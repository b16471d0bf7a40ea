// One definition of a command (`ToolCommand`) serves its parsing, its usage line and its help, so that the
// three cannot differ. Every command ends in one of three functions, which print for people or, with --json,
// for programs. That promise, one JSON value and nothing else, is kept even though children and the delta
// engine write to standard output when they please: the stream is led to standard error before the command
// begins, and the value goes to a copy that they do not know (`setJsonApart`). A result that could not be
// written is remembered and fails the command: a full disk must not look like success.
#include "Arguments.h"

#include "base/SafeText.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace zel::tool {

namespace {

int lostOutput = 0; // the errno value of the first result that could not be written

void print(FILE *stream, const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    const bool written =
        std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream) == size_t(bytes.size());
    if ((!written || std::fflush(stream) != 0) && stream != stderr && lostOutput == 0)
        lostOutput = errno;
}

// Lines name what strangers named: paths of a patch, versions of a feed. None of them steers the terminal.
QString safe(const QString &line)
{
    return QString::fromStdString(safeText(line.toStdString()));
}

QString usageLine(const ToolCommand &command)
{
    QString line = QLatin1String("zelupdater ") + command.name;
    for (const QString &name : command.positionals)
        line += u' ' + name;
    for (const QString &name : command.required) {
        for (const QCommandLineOption &option : command.options) {
            if (option.names().contains(name))
                line += QLatin1String(" --") + name + u' ' + option.valueName();
        }
    }
    return line + QLatin1String(" [options]");
}

} // namespace

bool Arguments::parse(const QStringList &words)
{
    m_parser.addOptions(m_command.options);
    m_parser.addOption({QStringLiteral("json"), QStringLiteral("Print one JSON value and nothing else.")});
    m_parser.addOption({QStringLiteral("verbose"), QStringLiteral("Show the log on standard error.")});
    m_parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    const bool understood = m_parser.parse(words);
    if (m_parser.isSet(QStringLiteral("help"))) {
        printHelp();
        std::exit(finishOutput() ? Done : JobFailed);
    }
    if (json())
        setJsonApart();
    const auto count = m_parser.positionalArguments().size();
    if (!understood)
        misused(m_parser.errorText());
    else if (count != m_command.positionals.size())
        misused(QStringLiteral("%1 %2 needed, %3 given")
                    .arg(m_command.positionals.size())
                    .arg(m_command.positionals.size() == 1 ? QLatin1String("argument is")
                                                           : QLatin1String("arguments are"))
                    .arg(count));
    else if (m_parser.positionalArguments().contains(QLatin1String("")))
        misused(QStringLiteral("an argument is empty"));
    else {
        for (const QString &name : m_command.required) {
            if (value(name).isEmpty()) {
                misused(QLatin1String("--") + name + QLatin1String(" is missing"));
                return false;
            }
        }
        return true;
    }
    return false;
}

std::optional<qint64> Arguments::number(const QString &option, qint64 least, qint64 most) const
{
    bool understood = false;
    const qint64 number = value(option).toLongLong(&understood);
    if (understood && number >= least && number <= most)
        return number;
    misused(QStringLiteral("--%1 takes a whole number from %2 to %3, not '%4'")
                .arg(option, QString::number(least), QString::number(most), value(option)));
    return std::nullopt;
}

int Arguments::done(const QString &text, const QJsonValue &value) const
{
    showProgress({});
    if (json())
        printJson(value);
    else if (!text.isEmpty())
        print(stdout, safe(text));
    return finishOutput() ? Done : JobFailed;
}

int Arguments::failed(const QString &message, const QJsonValue &value) const
{
    showProgress({});
    print(stderr, safe(QLatin1String("zelupdater ") + m_command.name + QLatin1String(": ") + message));
    if (json())
        printJson(value.isUndefined() ? QJsonObject{{QLatin1String("error"), message}} : value);
    return JobFailed;
}

int Arguments::misused(const QString &message) const
{
    print(stderr,
          safe(QLatin1String("zelupdater ") + m_command.name + QLatin1String(": ") + message)
              + QLatin1String("\nUsage: ") + usageLine(m_command));
    if (json())
        printJson(QJsonObject{{QLatin1String("error"), message}});
    return WrongUsage;
}

void Arguments::say(const QString &line) const
{
    if (!json())
        print(stdout, safe(line));
}

void Arguments::showProgress(const QString &text)
{
    static const bool terminal = ::isatty(STDERR_FILENO) == 1;
    if (!terminal)
        return;
    const QByteArray line = "\r\033[K" + safe(text).toUtf8();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    std::fflush(stderr);
}

void Arguments::printHelp() const
{
    QString help = QLatin1String("Usage: ") + usageLine(m_command) + QLatin1String("\n\n") + m_command.summary
        + QLatin1String("\n\nOptions:");
    QList<QCommandLineOption> options = m_command.options;
    options.append({QStringLiteral("json"), QStringLiteral("Print one JSON value and nothing else.")});
    options.append({QStringLiteral("verbose"), QStringLiteral("Show the log on standard error.")});
    for (const QCommandLineOption &option : options) {
        const QString form = QLatin1String("  --") + option.names().constFirst()
            + (option.valueName().isEmpty() ? QString() : u' ' + option.valueName());
        help += u'\n' + form.leftJustified(24) + u' ' + option.description();
    }
    print(stdout, help);
}

// Children and the delta engine know of standard output only, so it is that which is led elsewhere.
void Arguments::setJsonApart()
{
    m_json.reset(::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w"));
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

// One value, compact, and a newline.
void Arguments::printJson(const QJsonValue &value) const
{
    // QJsonDocument prints arrays and objects only; any other value goes through an array of one.
    QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    text = text.sliced(1, text.size() - 2);
    if (m_json)
        print(m_json.get(), QString::fromUtf8(text));
    else
        lostOutput = EBADF;
}

bool finishOutput()
{
    if (std::fflush(stdout) != 0 && lostOutput == 0)
        lostOutput = errno;
    if (lostOutput == 0)
        return true;
    print(stderr,
          QLatin1String("zelupdater: the result could not be written: ")
              + QString::fromLocal8Bit(std::strerror(lostOutput)));
    return false;
}

} // namespace zel::tool
