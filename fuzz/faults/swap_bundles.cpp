// swap-bundles NEW INSTALLED: the example host's exchange of bundles as a program, so that faults can be put
// into it.
#include "host/BundleSwap.h"

#include <cstdio>

int main(int argc, char *argv[])
{
    if (argc != 3)
        return 2;
    const std::error_code error = swapBundles(argv[1], argv[2]);
    if (error)
        std::fprintf(stderr, "swap-bundles: %s\n", error.message().c_str());
    return error ? 1 : 0;
}
