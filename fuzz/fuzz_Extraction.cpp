// Sound archives of hostile names and links, extracted into a folder that is empty or holds a link that leads
// out.
#include "HostilePath.h"
#include "support/ZipMaker.h"
#include "Unpacking.h"

#include <algorithm>
#include <clocale>

using namespace zel;

namespace {

ZipItem itemFrom(FuzzedDataProvider &input, const Sandbox &sandbox)
{
    const QByteArray name = QByteArray::fromStdString(hostilePath(input, sandbox));
    const auto permissions = input.ConsumeIntegral<uint16_t>() & 07777U;
    switch (input.ConsumeIntegralInRange(0, 2)) {
    case 0:
        return ZipMaker::link(name, QByteArray::fromStdString(hostilePath(input, sandbox)));
    case 1:
        return ZipMaker::folder(name, permissions);
    default:
        const QByteArray data = QByteArray::fromStdString(input.ConsumeRandomLengthString());
        return {.name = name, .data = data, .mode = S_IFREG | permissions};
    }
}

bool staysInside(const std::filesystem::path &folder, const std::filesystem::path &item)
{
    std::error_code error; // a circle of links leads nowhere
    const auto end = std::filesystem::weakly_canonical(item, error);
    return error || std::mismatch(folder.begin(), folder.end(), end.begin(), end.end()).first == folder.end();
}

void requireExtracted(const ZipItem &item, const std::filesystem::path &folder)
{
    const auto path = folder / item.name.toStdString();
    require(!S_ISREG(item.mode) || Sandbox::read(path) == item.data.toStdString());
    require(!S_ISLNK(item.mode) || staysInside(std::filesystem::canonical(folder), path));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    static const char *const locale = std::setlocale(LC_CTYPE, "C.UTF-8");
    static const Sandbox sandbox;
    static const auto before = sandbox.surroundings();
    require(locale);
    std::filesystem::remove_all(sandbox.inside());
    std::filesystem::create_directory(sandbox.inside());
    FuzzedDataProvider input(data, size);
    const bool linked = input.ConsumeBool();
    if (linked)
        std::filesystem::create_directory_symlink("../beside", sandbox.path("inside/out"));
    std::vector<ZipItem> items;
    while (input.remaining_bytes() > 0 && items.size() < 12)
        items.push_back(itemFrom(input, sandbox));
    const QByteArray archive = ZipMaker::make(items);
    const bool extracted = unpack({archive.constData(), size_t(archive.size())}, sandbox.inside());
    require(sandbox.surroundings() == before);
    if (extracted && !linked)
        std::ranges::for_each(items, [](const ZipItem &item) { requireExtracted(item, sandbox.inside()); });
    return 0;
}
