#include "BundleSwap.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace fs = std::filesystem;

namespace {

/// A rename where both are on one file system, a copy otherwise.
std::error_code bring(const fs::path &from, const fs::path &to)
{
    std::error_code error;
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link)
        fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    return error;
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
    return installed.parent_path() / ("." + installed.filename().string() + ".previous");
}

void dropPreviousBundle(const fs::path &installed)
{
    std::error_code ignored;
    fs::remove_all(previousBundle(installed), ignored);
}

std::error_code swapBundles(const fs::path &newBundle, const fs::path &installed)
{
    const fs::path staged = installed.parent_path() / ("." + installed.filename().string() + ".new");
    const fs::path previous = previousBundle(installed);
    std::error_code error, ignored;
    fs::remove_all(staged, ignored);
    fs::remove_all(previous, ignored);
    error = bring(newBundle, staged);
    if (!error && renameat2(AT_FDCWD, staged.c_str(), AT_FDCWD, installed.c_str(), RENAME_EXCHANGE) == 0)
        fs::rename(staged, previous, ignored);
    else if (!error && (errno == EINVAL || errno == ENOSYS))
        error = replaceInTwoSteps(staged, installed, previous);
    else if (!error)
        error = {errno, std::generic_category()};
    if (error)
        fs::remove_all(staged, ignored);
    return error;
}
