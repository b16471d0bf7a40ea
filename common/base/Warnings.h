// Messages on standard error, each a line that begins with the program's name: `warn` ends with what errno
// says, `warnx` does not. The C libraries of Linux, macOS and the BSDs have them; others get the same by
// hand.
#pragma once

#if __has_include(<err.h>)
#include <err.h>
#else

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zel {

inline void printWarning(const char *reason, const char *format, std::va_list arguments)
{
    const char *const folderEnd = std::strrchr(_pgmptr, '\\');
    std::fprintf(stderr, "%s: ", folderEnd ? folderEnd + 1 : _pgmptr);
    std::vfprintf(stderr, format, arguments);
    std::fprintf(stderr, reason ? ": %s\n" : "\n", reason);
}

} // namespace zel

inline void warn(const char *format, ...)
{
    const char *const reason = std::strerror(errno);
    std::va_list arguments;
    va_start(arguments, format);
    zel::printWarning(reason, format, arguments);
    va_end(arguments);
}

inline void warnx(const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    zel::printWarning(nullptr, format, arguments);
    va_end(arguments);
}

#endif
