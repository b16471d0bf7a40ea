#include "ProxyLookup.h"

#include "platform/Queues.h"

#include <mutex>
#include <utility>

namespace zel {

struct ProxyLookup::State {
    std::mutex mutex;
    std::function<void()> wake;
    std::optional<Proxy> answer;
};

ProxyLookup::ProxyLookup(const QUrl &url, std::function<void()> wake)
    : m_origin(originOf(url))
    , m_state(std::make_shared<State>())
{
    m_state->wake = std::move(wake);
    onGlobalQueue([state = m_state, origin = m_origin] {
        const Proxy proxy = proxyFor(origin);
        const std::lock_guard lock(state->mutex);
        state->answer = proxy;
        if (state->wake)
            state->wake();
    });
}

ProxyLookup::~ProxyLookup()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->wake = nullptr;
}

std::optional<Proxy> ProxyLookup::answer() const
{
    const std::lock_guard lock(m_state->mutex);
    return m_state->answer;
}

} // namespace zel
