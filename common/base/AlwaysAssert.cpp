#include "AlwaysAssert.h"

#undef NDEBUG // the platform declares its reporter only where assertions are on
#include <cassert>
#include <cstdio>
#include <cstdlib>

// The C library prints its message and aborts; each calls that routine otherwise. A debugger and a crash
// report know it by its name, so it is called where it is known.
void zel::assertionFailed(const char *expression, const char *file, unsigned line, const char *function)
{
#if defined(__APPLE__)
    ::__assert_rtn(function, file, static_cast<int>(line), expression);
#elif defined(__linux__)
    ::__assert_fail(expression, file, line, function);
#else
    std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, expression);
    std::abort();
#endif
}
