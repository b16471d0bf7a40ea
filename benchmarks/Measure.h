// Measuring pieces of work, each run in a process of its own.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

/// Work that sets its input up and then calls its argument around what is to be timed. Returns whether it went
/// well.
using Work = std::function<bool(const std::function<void(const std::function<void()> &)> &timed)>;

/// Lets an external command be measured like any other work; its output is dropped.
Work command(std::vector<std::string> arguments);

/// One line of the table: this project's work against its peer's on the same data.
struct Row {
    std::string unit;
    std::string data;
    Work ours;
    std::string peerName;
    Work peer;
    double goal = 0; ///< the greatest ratio of the times to be content with; 0 for none
};

struct Measurement {
    double seconds = 0; ///< wall time
    double megabytes = 0; ///< greatest resident size of the process, its input included
};

struct Result {
    std::optional<Measurement> ours; ///< the medians; none when a run failed
    std::optional<Measurement> peer;
};

/// Runs both sides of a row in turn, so that both meet what else the machine does.
Result measure(const Row &row, int runs);

} // namespace bench
