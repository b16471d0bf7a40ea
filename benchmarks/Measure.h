// Measuring pieces of work, each run in a process of its own.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace bench {

/// Work that sets its input up and then calls its argument around what is to be timed. Returns whether it
/// went well.
using Work = std::function<bool(const std::function<void(const std::function<void()> &)> &timed)>;

/// Lets an external command be measured like any other work; its output is dropped.
Work command(std::vector<std::string> arguments);

/// The same with a folder or file that is removed before each run, outside the time.
Work commandWithout(const std::filesystem::path &leftover, std::vector<std::string> arguments);

/// Runs commands one after the other in a shell; for what comes before the time, and for pipes.
bool shell(const std::string &commands);

/// A path as one word of a shell's command.
std::string shellWord(const std::filesystem::path &path);

/// Another way to the same end. Goals are the greatest ratios of ours to it to be content with; 0 for none.
struct PeerTool {
    std::string name;
    Work work;
    std::filesystem::path output = {}; ///< a file whose size counts; none when empty
    double timeGoal = 0;
    double sizeGoal = 0;
    double aboveGoal = 0; ///< greatest resident megabytes above the peer's
};

/// This project's work on some data, and its peers on the same data.
struct Row {
    std::string unit;
    std::string data;
    Work work;
    std::filesystem::path output = {};
    std::vector<PeerTool> peers = {};
    bool slow = false; ///< three runs are enough
    double secondsGoal = 0; ///< where there is no peer to compare with
    double memoryGoal = 0; ///< greatest resident megabytes
};

struct Measurement {
    double seconds = 0; ///< wall time
    double megabytes = 0; ///< greatest resident size of the process and its children, their input included
    double bytes = 0; ///< size of the output
};

struct Result {
    std::optional<Measurement> ours; ///< the medians; none when a run failed
    std::vector<std::optional<Measurement>> peers;
};

/// Runs a row's work and its peers in turn, so that all meet what else the machine does.
Result measure(const Row &row, int runs);

} // namespace bench
