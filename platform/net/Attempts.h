// When a download that has failed is tried again.
#pragma once

#include <chrono>
#include <curl/curl.h>
#include <optional>
#include <utility>
#include <vector>

namespace zel {

/// How an attempt ended, when that may be different the next time.
struct PassingFault {
    bool isSilence = false; ///< nothing came, or too little, for as long as one waits for it
    bool cameFurther = false; ///< but the file has grown
    std::chrono::seconds asked{0}; ///< by the server, as a pause
};

/// Whether what libcurl failed with may pass.
bool isPassing(CURLcode code);

/// Whether what an answer's status says may pass.
bool isPassing(long status);

/// The attempts at one transfer. Decides over what it is told, so it can be tested without waiting.
class Attempts
{
public:
    /// At most as many as there are pauses, and one.
    explicit Attempts(std::vector<std::chrono::milliseconds> pauses)
        : m_pauses(std::move(pauses))
    {
    }

    /// Whether none may follow the present one.
    bool isLast() const { return m_ended >= m_pauses.size(); }

    /// The present one has ended. How long to wait before the next one: some more than its pause is, or what
    /// the server asks for, up to a minute. Nothing: there is none, since it was the last one, or since a
    /// network that has been silent twice, and brought nothing in between, will be so again.
    std::optional<std::chrono::milliseconds> next(const PassingFault &fault);

private:
    const std::vector<std::chrono::milliseconds> m_pauses;
    size_t m_ended = 0;
    int m_silences = 0; // since the file has grown
};

} // namespace zel
