// Any bytes as a zip archive: what passes the safety check has only names that stay below the folder.
#include "Unpacking.h"

#include <clocale>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const char *const locale = std::setlocale(LC_CTYPE, "C.UTF-8");
    zel::require(locale);
    const zel::Spool archive = zel::spooled(zel::textOf(data, size));
    zel::ZipDirectory directory;
    if (directory.read(archive))
        return 0;
    zel::EntryReader reader(archive.file.get(), directory.dataEnd());
    if (zel::checkSafety(directory, reader))
        return 0;
    for (const zel::ZipEntry &entry : directory.entries()) {
        const std::filesystem::path name(entry.name);
        zel::require(name.is_relative() && !name.empty() && name == name.lexically_normal());
        zel::require(*name.begin() != "..");
        zel::require(entry.name.size() <= 4095 && std::distance(name.begin(), name.end()) <= 128);
        reader.read(entry, [](const char *, std::size_t) { return zel::Problem(); });
    }
    return 0;
}
