// What the archive tool tells the program that has started it, beside its exit status.
//
// The exit status alone does not do: a host that ignores SIGCHLD or collects every child never gets to see
// it, and whoever waits for it cannot tell a tool that still works from one that hangs. So the tool writes to
// a pipe, whose number it finds in its environment: a dot now and then while it gets on, and a digit, its
// exit status, as the last thing that it does. A tool that knows nothing of this is judged by its exit
// status.
#pragma once

namespace zel {

constexpr char ReportVariable[] = "ZEL_UNPACK_REPORT"; ///< the descriptor's number, in decimal
constexpr char ReportedProgress = '.';
constexpr char ReportedStatus = '0'; ///< and the digits that follow it

} // namespace zel
