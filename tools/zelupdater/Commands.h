// The commands, grouped by what they work on.
#pragma once

#include "Arguments.h"

std::vector<Command> deltaCommands(); // diff, patch, md5
std::vector<Command> patchCommands(); // make-patch, apply-patch, test-patch, inspect-patch
std::vector<Command> sealCommands(); // sign, verify
std::vector<Command> updateCommands(); // check, update
std::vector<Command> publishCommands(); // release, serve

/// Why a file cannot be read; a null string when it can.
QString unreadable(const QString &path);

/// Shows on a terminal what the patch maker is at.
void showPatchProgress(const QString &step, qint64 done, qint64 total);

/// --memory, for the commands that make patches, and its value in bytes; wrong usage is reported and gives nothing.
QCommandLineOption memoryOption();
std::optional<qint64> memoryBudget(const Arguments &arguments);

/// --signer, for the commands that check seals.
QCommandLineOption signerOption();
