#include "Runs.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <csignal>

namespace {

constexpr int TimeToHang = 120'000; // milliseconds

// Nothing of the user's settings, and no locale to be loaded.
QProcessEnvironment environmentIn(const QString &scratch)
{
    QDir().mkpath(scratch);
    QProcessEnvironment environment;
    environment.insert("PATH", qEnvironmentVariable("PATH"));
    environment.insert("LC_ALL", "C.UTF-8");
    for (const char *name :
         {"TMPDIR", "HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        environment.insert(name, scratch);
    return environment;
}

ToolRun run(const QStringList &command, const QString &scratch)
{
    QProcess process;
    process.setProcessEnvironment(environmentIn(scratch));
    process.start(command.first(), command.mid(1));
    ToolRun made;
    made.inTime = process.waitForFinished(TimeToHang);
    if (!made.inTime) {
        process.kill();
        process.waitForFinished();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        made.status = process.exitCode();
    } else {
        made.signalled << "the command";
    }
    made.out = process.readAllStandardOutput();
    made.err = process.readAllStandardError();
    return made;
}

void readReport(const QString &file, ToolRun &made)
{
    QFile report(file);
    if (!report.open(QIODevice::ReadOnly))
        qFatal("the injector fails: %s", made.err.constData());
    made.status = -1;
    const QStringList lines = QString::fromUtf8(report.readAll()).split(u'\n', Qt::SkipEmptyParts);
    for (const QString &line : lines) {
        const QStringList words = line.split(u' ');
        if (words[0] == "count")
            made.calls[{words[1], words[2]}] = words[3].toInt();
        else if (words[0] == "hit")
            made.hit = true;
        else if (words[0] == "signal")
            made.signalled << words[1] + " by signal " + words[2];
        else if (words[0] == "exit")
            made.status = words[1].toInt();
    }
    // Deliberate: the tool that unpacks lets itself be ended so when nobody is left who wants the archive.
    if (made.status < 0)
        made.signalled.removeAll(QString("zel-unpack by signal %1").arg(SIGPIPE));
}

} // namespace

ToolRun runPlainly(const QStringList &command, const QString &scratch)
{
    return run(command, scratch);
}

ToolRun runWithFaults(const QStringList &command, const QString &scratch, const QStringList &faults)
{
    const QString report = scratch + "/fault-report";
    ToolRun made = run(QStringList{ZEL_INJECT, report} + faults + QStringList{"--"} + command, scratch);
    made.signalled.clear();
    if (made.inTime)
        readReport(report, made);
    return made;
}
