// Assertions that stay active in every build: what would make wrong files without a sign must not go on.
#pragma once

namespace zel {

/// Prints the platform's assertion message and aborts the process.
[[noreturn]] void assertionFailed(const char *expression, const char *file, unsigned line,
                                  const char *function);

} // namespace zel

/// Aborts unless `expression` holds; `function` is the routine that the message names.
#define ZEL_ASSERT_IN(function, expression)                                                                  \
    do {                                                                                                     \
        if (!(expression)) [[unlikely]]                                                                      \
            zel::assertionFailed(#expression, __FILE_NAME__, __LINE__, function);                            \
    } while (false)

#define ZEL_ASSERT(expression) ZEL_ASSERT_IN(static_cast<const char *>(__func__), expression)
