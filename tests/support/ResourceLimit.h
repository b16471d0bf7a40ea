// Limits that the system keeps a process to.
#pragma once

#include <sys/resource.h>

/// Sets a limit, such as RLIMIT_FSIZE, for as long as it lives.
class ResourceLimit
{
public:
    ResourceLimit(__rlimit_resource resource, rlim_t most)
        : m_resource(resource)
    {
        ::getrlimit(m_resource, &m_before);
        const rlimit limit{most, m_before.rlim_max};
        ::setrlimit(m_resource, &limit);
    }
    ~ResourceLimit() { ::setrlimit(m_resource, &m_before); }
    ResourceLimit(const ResourceLimit &) = delete;
    ResourceLimit &operator=(const ResourceLimit &) = delete;

private:
    const __rlimit_resource m_resource;
    rlimit m_before;
};
