// What is asked of a server, within which limits, and the codes of what may come of it.
#pragma once

#include <QByteArray>
#include <QUrl>

#include <chrono>
#include <optional>
#include <vector>

namespace zel {

/// Codes of the transport errors that a flow tells apart; every other one has the code 0.
namespace URLErrorCode {
constexpr qint64 Cancelled = -999;
constexpr qint64 TimedOut = -1001;
constexpr qint64 TooLong = -1103; ///< more than `URLRequest::bodyLimit`
} // namespace URLErrorCode

/// The least that must move in every span of time, one after the other.
struct LeastPace {
    qint64 bytes;
    std::chrono::milliseconds span;
};

struct URLRequest {
    QUrl url; ///< http or https with a host; anything else is a transport error
    QByteArray method = "GET"; ///< "GET" or "POST"
    QByteArray body = {}; ///< of a POST
    /// Of the body; servers read, and limit, forms in ways of their own.
    QByteArray contentType = "application/json";
    QByteArray languages = {}; ///< the header "Accept-Language"; left out when empty
    std::chrono::milliseconds timeout{120'000}; ///< longest time without a byte in either direction
    /// Most time in all: redirections, further attempts and the pauses between them included.
    std::optional<std::chrono::milliseconds> deadline = {};
    std::optional<LeastPace> pace = {}; ///< of each attempt; bytes in both directions count
    /// Most bytes of the body, decoded; one more is a transport error. Without it 4 MiB for a data task,
    /// whose body is kept in memory, and no limit for a download.
    std::optional<qint64> bodyLimit = {};
    /// Bytes of the file that a download asks for, where that is known: other lengths are other files, and
    /// one that is there whole is not asked for.
    std::optional<qint64> size = {};
    /// What a download waits before each further attempt, after a fault that passes (`Attempts`). Servers may
    /// ask for more, up to a minute. Empty: one attempt.
    std::vector<std::chrono::milliseconds> pauses = {};
};

} // namespace zel
