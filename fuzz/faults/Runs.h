// Runs of a command, with faults or without.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

/// How a run went.
struct ToolRun {
    bool inTime = false;
    int status = -1; ///< the exit status; -1 when a signal ended the command
    bool hit = false; ///< whether the run came to the fault
    QStringList signalled; ///< programs that a signal ended, other than by a fault, each with the signal
    QMap<QPair<QString, QString>, int> calls; ///< how many of each there were, by program and call
    QByteArray out;
    QByteArray err;

    /// Whether a fault killed the command.
    bool isKilled() const { return inTime && status < 0 && signalled.isEmpty(); }
};

/// Runs the command with a folder for its temporary files and settings, which is made. A command that takes
/// longer than two minutes hangs: it is ended. Any thread.
ToolRun runWithFaults(const QStringList &command, const QString &scratch, const QStringList &faults);
ToolRun runPlainly(const QStringList &command, const QString &scratch);
