#include "BundleSwap.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/// A hidden name beside the bundle.
fs::path sibling(const fs::path &bundle, const char *suffix)
{
    fs::path name(".");
    name += bundle.filename();
    name += suffix;
    return bundle.parent_path() / name;
}

/// A rename where both are on one file system, a copy otherwise.
std::error_code bring(const fs::path &from, const fs::path &to)
{
    std::error_code error;
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link)
        fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    return error;
}

/// Waits until the bundle's data is on the disk: the exchange must not get there before it.
void flush(const fs::path &bundle)
{
    const int folder = open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return;
    syncfs(folder);
    close(folder);
}

std::error_code exchange(const fs::path &one, const fs::path &other)
{
    const bool done = renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
    return {done ? 0 : errno, std::generic_category()};
}

/// For file systems that cannot exchange two names: for a moment there is no bundle at the installed path, and the old
/// one comes back when the new one cannot be put there.
std::error_code replaceInTwoSteps(const fs::path &staged, const fs::path &installed, const fs::path &previous)
{
    std::error_code error;
    fs::rename(installed, previous, error);
    if (error)
        return error;
    fs::rename(staged, installed, error);
    std::error_code ignored;
    if (error)
        fs::rename(previous, installed, ignored);
    return error;
}

} // namespace

fs::path previousBundle(const fs::path &installed)
{
    return sibling(installed, ".previous");
}

bool dropPreviousBundle(const fs::path &installed)
{
    std::error_code ignored;
    const auto removed = fs::remove_all(previousBundle(installed), ignored);
    return removed != 0 && removed != static_cast<std::uintmax_t>(-1);
}

std::error_code swapBundles(const fs::path &newBundle, const fs::path &installed)
{
    const fs::path staged = sibling(installed, ".new");
    const fs::path previous = previousBundle(installed);
    std::error_code ignored;
    fs::remove_all(staged, ignored);
    fs::remove_all(previous, ignored);
    std::error_code error = bring(newBundle, staged);
    if (!error)
        flush(staged);
    if (!error)
        error = exchange(staged, installed);
    if (!error)
        fs::rename(staged, previous, ignored);
    else if (error == std::errc::invalid_argument || error == std::errc::function_not_supported)
        error = replaceInTwoSteps(staged, installed, previous);
    if (error) {
        fs::rename(staged, newBundle, ignored); // fails for a copy, whose original is still there
        fs::remove_all(staged, ignored);
    }
    return error;
}
