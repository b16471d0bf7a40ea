// The question which proxy a request goes through, asked where it holds nobody up.
#pragma once

#include "Proxies.h"

#include <functional>
#include <memory>
#include <optional>

namespace zel {

/// `proxyFor` on a thread of its own: a desktop's script, or a factory of the application, may take its time.
/// Who does not want to wait any longer drops this object; the thread ends when it has its answer, which the
/// application's end waits for. On the caller's thread where no thread is to be had. Made, asked and
/// destroyed on one thread.
class ProxyLookup
{
public:
    /// Begins. `wake` is called once there is an answer, on the other thread, but never after this object's
    /// end.
    ProxyLookup(const QUrl &url, std::function<void()> wake);

    ~ProxyLookup();
    ProxyLookup(const ProxyLookup &) = delete;
    ProxyLookup &operator=(const ProxyLookup &) = delete;

    /// Whether the answer is that for `url`, too.
    bool isFor(const QUrl &url) const { return originOf(url) == m_origin; }

    /// Nothing as long as it is not known.
    std::optional<Proxy> answer() const;

private:
    struct State;

    const QUrl m_origin;
    const std::shared_ptr<State> m_state;
};

} // namespace zel
