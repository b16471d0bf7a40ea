#include "Tree.h"

#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

std::string itemOf(const fs::path &path)
{
    const fs::file_status status = fs::symlink_status(path);
    if (status.type() == fs::file_type::symlink)
        return "link to " + fs::read_symlink(path).string();
    const std::string mode = std::to_string(static_cast<int>(status.permissions()));
    if (status.type() == fs::file_type::directory)
        return "folder " + mode;
    std::ifstream in(path, std::ios::binary);
    return "file " + mode + '\n' + std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace

Tree treeOf(const fs::path &root)
{
    Tree tree;
    if (!fs::exists(fs::symlink_status(root)))
        return tree;
    tree[""] = itemOf(root);
    if (!fs::is_directory(fs::symlink_status(root)))
        return tree;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root))
        tree[entry.path().lexically_relative(root).string()] = itemOf(entry.path());
    return tree;
}

void copyTree(const fs::path &from, const fs::path &to)
{
    fs::create_directories(to.parent_path());
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    for (const auto &[name, item] : treeOf(from)) {
        struct stat status;
        const fs::path original = name.empty() ? from : from / name;
        if (::lstat(original.c_str(), &status) != 0)
            continue;
        const timespec times[] = {status.st_atim, status.st_mtim};
        ::utimensat(AT_FDCWD, (name.empty() ? to : to / name).c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
}

std::string firstDifference(const Tree &one, const Tree &other)
{
    for (const auto &[name, item] : one) {
        const auto at = other.find(name);
        if (at == other.end())
            return name + " (missing)";
        if (at->second != item)
            return name;
    }
    for (const auto &[name, item] : other) {
        if (!one.contains(name))
            return name + " (new)";
    }
    return {};
}
