// Files, folders and links below one folder, which no path leads out of.
#pragma once

#include "base/FileDescriptor.h"
#include "Problem.h"
#include "ZipDirectory.h"

namespace zel {

/// Makes items below `root`, with the folders above them. Every folder on the way is opened by itself and without
/// following links, so that a link which is there already leads nowhere either. What is in the place of a new file
/// or link is replaced, unless it is a folder. Each thread needs a writer of its own.
class TreeWriter
{
public:
    explicit TreeWriter(int root)
        : m_root(root)
    {
    }

    /// A new empty file, open for writing.
    Problem makeFile(const ZipEntry &entry, FileDescriptor &file);
    /// Gives a file that is complete its mode and time, and closes it.
    static Problem finishFile(const ZipEntry &entry, FileDescriptor &file);

    Problem makeLink(const ZipEntry &entry, const std::string &target);

    /// Makes a folder unless it is there, and gives it its mode and time; nothing may be made in it afterwards.
    Problem finishFolder(const ZipEntry &entry);

private:
    Problem enter(std::string_view folder, std::string_view entryName);
    Problem enterAbove(const ZipEntry &entry, std::string &leaf);

    int m_root;
    std::string m_folderName; // the folder entered last: most entries lie beside the one before
    FileDescriptor m_folder;
};

} // namespace zel
