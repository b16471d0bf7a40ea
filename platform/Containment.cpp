#include "PathNames.h"

#include <algorithm>

namespace zel {

namespace {

constexpr size_t MaxLinks = 40; // as the kernel has it
constexpr qsizetype MaxLinkNames = 4096;

} // namespace

PathNames::PathNames(QByteArrayView path, qint64 &left)
    : m_rest{path}
    , m_left(left)
{
}

std::optional<QByteArrayView> PathNames::next()
{
    for (;;) {
        while (m_rest.size() > 1 && m_rest.back().isNull())
            m_rest.pop_back();
        QByteArrayView &rest = m_rest.back();
        if (rest.isNull())
            return std::nullopt;
        const qsizetype slash = rest.indexOf('/');
        const QByteArrayView name = slash < 0 ? rest : rest.first(slash);
        rest = slash < 0 ? QByteArrayView() : rest.sliced(slash + 1);
        if (!name.isEmpty() && name != ".")
            return name;
    }
}

bool PathNames::atEnd() const
{
    return std::ranges::all_of(m_rest, [](QByteArrayView rest) { return rest.isNull(); });
}

bool PathNames::follow(const QByteArray &target)
{
    const qsizetype names = target.count('/') + 1;
    m_linkNames += names;
    m_left -= names;
    if (target.isEmpty() || target.startsWith('/') || m_targets.size() >= MaxLinks
        || m_linkNames > MaxLinkNames || m_left < 0)
        return false;
    m_targets.push_back(target); // shares the bytes, so that they stay where they are
    m_rest.push_back(m_targets.back());
    return true;
}

} // namespace zel
