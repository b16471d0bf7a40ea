#include "BundleSwap.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char PreviousSuffix[] = ".previous";

// A hidden name beside the bundle.
fs::path sibling(const fs::path &bundle, const char *suffix)
{
    fs::path name(".");
    name += bundle.filename();
    name += suffix;
    return bundle.parent_path() / name;
}

// Where the new bundle is made ready. It may be half of one, and can always be removed.
fs::path stagedBundle(const fs::path &installed)
{
    return sibling(installed, ".new");
}

std::error_code lastError(bool done)
{
    return {done ? 0 : errno, std::generic_category()};
}

std::error_code copyItem(const fs::directory_entry &from, const fs::path &to);

// Not fs::copy, which throws when a folder's next entry cannot be read.
std::error_code copyFolder(const fs::path &from, const fs::path &to)
{
    std::error_code error;
    const fs::perms mode = fs::status(from, error).permissions();
    if (!error && !fs::create_directory(to, error) && !error)
        error = std::make_error_code(std::errc::file_exists);
    if (error)
        return error;
    fs::directory_iterator entry(from, error);
    while (!error && entry != fs::directory_iterator()) {
        error = copyItem(*entry, to / entry->path().filename());
        if (!error)
            entry.increment(error);
    }
    if (!error)
        fs::permissions(to, mode, error); // last: it may forbid to write
    return error;
}

std::error_code copyItem(const fs::directory_entry &from, const fs::path &to)
{
    std::error_code error;
    const fs::file_type type = from.symlink_status(error).type();
    if (error)
        return error;
    if (type == fs::file_type::directory)
        return copyFolder(from, to);
    if (type == fs::file_type::symlink)
        fs::copy_symlink(from, to, error);
    else if (type == fs::file_type::regular)
        fs::copy_file(from, to, error);
    else
        error = std::make_error_code(std::errc::not_supported);
    return error;
}

// Waits until all that was written is on the disk: the exchange must not get there before the bundle.
std::error_code flush(const fs::path &bundle)
{
    const int folder = open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return lastError(false);
    const std::error_code error = lastError(syncfs(folder) == 0);
    close(folder);
    return error;
}

std::error_code exchange(const fs::path &one, const fs::path &other)
{
    return lastError(renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0);
}

// Gives the one that was exchanged its name; where that cannot be, the exchange is undone.
std::error_code nameThePrevious(const fs::path &staged, const fs::path &installed, const fs::path &previous)
{
    std::error_code error;
    fs::rename(staged, previous, error);
    if (error)
        exchange(staged, installed);
    return error;
}

// Undoes a swap that was killed between two renames. Whether there was one.
bool recover(const fs::path &installed)
{
    std::error_code error;
    if (fs::symlink_status(installed, error).type() != fs::file_type::not_found)
        return false;
    fs::rename(previousBundle(installed), installed, error);
    return !error;
}

// For file systems that cannot exchange: for a moment there is no bundle at the installed path, and the old
// one comes back when the new one cannot be put there.
std::error_code replaceInTwoSteps(const fs::path &staged, const fs::path &installed, const fs::path &previous)
{
    std::error_code error;
    fs::rename(installed, previous, error);
    if (error)
        return error;
    fs::rename(staged, installed, error);
    if (error)
        recover(installed);
    return error;
}

// Only the exchange itself may say that there is none: a copy fails with the same errors.
std::error_code replace(const fs::path &staged, const fs::path &installed)
{
    const fs::path previous = previousBundle(installed);
    const std::error_code error = exchange(staged, installed);
    if (!error)
        return nameThePrevious(staged, installed, previous);
    if (error == std::errc::invalid_argument || error == std::errc::function_not_supported)
        return replaceInTwoSteps(staged, installed, previous);
    return error;
}

std::error_code checkFolder(const fs::path &path)
{
    std::error_code error;
    const fs::file_type type = fs::symlink_status(path, error).type();
    if (type == fs::file_type::not_found)
        return std::make_error_code(std::errc::no_such_file_or_directory);
    if (!error && type != fs::file_type::directory)
        return std::make_error_code(std::errc::not_a_directory);
    return error;
}

// Removes what earlier swaps left. The old bundle among it is no longer needed: there is one at the
// installed path.
std::error_code clear(const fs::path &installed)
{
    std::error_code error;
    fs::remove_all(stagedBundle(installed), error);
    if (!error)
        fs::remove_all(previousBundle(installed), error);
    return error;
}

} // namespace

fs::path previousBundle(const fs::path &installed)
{
    return sibling(installed, PreviousSuffix);
}

fs::path installedBundle(const fs::path &running)
{
    const std::string name = running.filename().string();
    const std::string_view suffix(PreviousSuffix);
    if (!name.starts_with('.') || !name.ends_with(suffix))
        return running;
    const fs::path installed = running.parent_path() / name.substr(1, name.size() - 1 - suffix.size());
    return recover(installed) ? installed : running;
}

bool dropPreviousBundle(const fs::path &installed)
{
    std::error_code error;
    const auto removed = fs::remove_all(previousBundle(installed), error);
    return !error && removed != 0;
}

std::error_code swapObstacle(const fs::path &installed)
{
    const fs::path staged = stagedBundle(installed);
    std::error_code error;
    fs::remove_all(staged, error);
    if (!error)
        fs::create_directory(staged, error);
    if (!error)
        fs::remove(staged, error);
    return error;
}

std::error_code swapBundles(const fs::path &newBundle, const fs::path &installed)
{
    recover(installed);
    const fs::path staged = stagedBundle(installed);
    for (const fs::path &bundle : {newBundle, installed}) {
        if (const std::error_code error = checkFolder(bundle))
            return error;
    }
    std::error_code error = clear(installed);
    if (error)
        return error;
    fs::rename(newBundle, staged, error);
    const bool isCopied = error == std::errc::cross_device_link;
    if (isCopied)
        error = copyFolder(newBundle, staged);
    if (!error)
        error = flush(staged);
    if (!error)
        error = replace(staged, installed);
    std::error_code ignored;
    if (error && !isCopied)
        fs::rename(staged, newBundle, ignored);
    if (error && isCopied)
        fs::remove_all(staged, ignored);
    return error;
}
