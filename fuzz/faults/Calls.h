// The system calls that faults are put into, and what may become of each.
#pragma once

#include <span>
#include <string_view>

/// One outcome of a call besides its own: the name of an error number, "short" for a transfer of half the
/// bytes, "kill" for the end of the process before the call.
struct CallFaults {
    std::string_view call;
    long number; ///< the system's
    int lengthArgument; ///< of the bytes to transfer; -1 where there is none
    std::span<const std::string_view> outcomes;
};

/// In alphabetical order.
std::span<const CallFaults> knownCalls();

/// Null for an unknown call.
const CallFaults *findCall(std::string_view name);
const CallFaults *findCall(long number);

/// Zero for an unknown name.
int errorNumber(std::string_view name);
