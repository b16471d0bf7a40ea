// The frame of the tool's commands: what each takes, and the ways in which it ends.
#pragma once

#include <QCommandLineParser>
#include <QJsonValue>
#include <QStringList>

#include <cstdio>
#include <memory>
#include <optional>

namespace zel::tool {

class Arguments;

enum ExitStatus { Done = 0, JobFailed = 1, WrongUsage = 2 };

struct ToolCommand {
    QString name;
    QStringList positionals; ///< their names, as usage lines show them
    QString summary;
    QList<QCommandLineOption> options;
    QStringList required; ///< the options that must be given
    int (*run)(const Arguments &arguments);
};

/// The parsed arguments of one command, and its two ways to end.
///
/// With --json, exactly one JSON value goes to standard output, whether the job was done, failed or was never
/// begun; whatever else is written there (by the delta engine, by a child process) goes to standard error.
/// Without it, text goes to standard output; errors go to standard error, one line each, in both cases. Each
/// text is shown as one line that is safe for a terminal, whoever chose its words.
class Arguments
{
public:
    explicit Arguments(const ToolCommand &command)
        : m_command(command)
    {
    }

    /// Wrong usage is reported and gives false.
    bool parse(const QStringList &words);

    QString positional(int index) const { return m_parser.positionalArguments().at(index); }
    bool isSet(const QString &option) const { return m_parser.isSet(option); }
    QString value(const QString &option) const { return m_parser.value(option); }
    QStringList values(const QString &option) const { return m_parser.values(option); }

    /// An option's whole number; reports wrong usage and gives nothing when it is not one between `least` and
    /// `most`.
    std::optional<qint64> number(const QString &option, qint64 least, qint64 most) const;

    bool json() const { return isSet(QStringLiteral("json")); }

    /// Ends a command that did its job: prints `text`, or `value` with --json. A result that cannot be
    /// written is a failure of the command.
    int done(const QString &text, const QJsonValue &value) const;

    /// Ends a command that failed; `value` is printed with --json, {"error": message} when it is not given.
    int failed(const QString &message, const QJsonValue &value = QJsonValue::Undefined) const;

    /// Ends a command that was called in a wrong way.
    int misused(const QString &message) const;

    /// Prints a line of text on standard output at once; nothing with --json.
    void say(const QString &line) const;

    /// Shows, on a terminal, how far a long job is; nothing when standard error is not one. An empty text
    /// clears it.
    static void showProgress(const QString &text);

private:
    struct CloseStream {
        void operator()(std::FILE *stream) const { std::fclose(stream); }
    };

    void setJsonApart();
    void printJson(const QJsonValue &value) const;
    void printHelp() const;

    const ToolCommand &m_command;
    QCommandLineParser m_parser;
    std::unique_ptr<std::FILE, CloseStream> m_json; ///< with --json, what was standard output
};

/// Whether all that was written to standard output got there; says on standard error when it did not.
bool finishOutput();

} // namespace zel::tool
