// The archive tool's work, without its process.
#pragma once

#include "Sandbox.h"
#include "zel-unpack/Extraction.h"
#include "zel-unpack/SafetyCheck.h"

#include <fcntl.h>
#include <sys/mman.h>

namespace zel {

/// An archive as the tool stores it.
inline Spool spooled(std::string_view bytes)
{
    Spool archive{FileDescriptor(::memfd_create("archive", MFD_CLOEXEC)), bytes.size()};
    require(writeAll(archive.file.get(), bytes.data(), bytes.size()));
    return archive;
}

/// Whether all of an archive was extracted. What declares more than a megabyte is let go: the disk of a
/// fuzzer is small.
inline bool unpack(std::string_view bytes, const std::filesystem::path &folder)
{
    const Spool archive = spooled(bytes);
    const FileDescriptor root(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ZipDirectory directory;
    if (directory.read(archive))
        return false;
    EntryReader reader(archive.file.get(), directory.dataEnd());
    return !checkSafety(directory, reader) && !judgeRoom(directory, 1 << 20)
        && !extractAll(directory, archive.file.get(), root.get(), [] {});
}

} // namespace zel
