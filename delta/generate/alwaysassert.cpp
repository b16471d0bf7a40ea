#include "alwaysassert.h"

#undef NDEBUG // the platform declares its reporter only where assertions are on
#include <cassert>

void zel::assertionFailed(const char *expression, const char *file, unsigned line, const char *function)
{
    __assert_fail(expression, file, line, function);
}
