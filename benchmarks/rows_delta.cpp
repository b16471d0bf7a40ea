#include "rows.h"

#include "delta/owned.h"
#include "delta/readfile.h"
#include "generate/sais.h"
#include "generate/scan.h"

#include <cstdio>
#include <divsufsort64.h>

namespace bench {
namespace {

using zel::Bytes;

struct File {
    std::int64_t size = 0;
    Bytes bytes;

    explicit File(const std::filesystem::path &path)
        : bytes(readfile(path.c_str(), &size))
    {
    }

    std::span<const unsigned char> span() const { return {bytes.get(), static_cast<std::size_t>(size)}; }
};

Work sortWith(std::int64_t (*sort)(const unsigned char *, std::int64_t *, std::int64_t),
              const std::filesystem::path &path)
{
    return [=](const auto &timed) {
        const File text(path);
        const zel::Entries SA = zel::allocateEntries(text.size);
        std::int64_t result = -1;
        if (text.bytes && SA)
            timed([&] { result = sort(text.bytes.get(), SA.get(), text.size); });
        return result == 0;
    };
}

std::int64_t sortOurs(const unsigned char *T, std::int64_t *SA, std::int64_t n)
{
    return sais(T, SA, static_cast<int>(n));
}

std::int64_t sortTheirs(const unsigned char *T, std::int64_t *SA, std::int64_t n)
{
    return divsufsort64(T, SA, n);
}

// All of making a delta but its files: suffix array and scan.
Work sortAndScan(const std::filesystem::path &oldPath, const std::filesystem::path &newPath)
{
    return [=](const auto &timed) {
        const File oldFile(oldPath);
        const File newFile(newPath);
        if (!oldFile.bytes || !newFile.bytes)
            return false;
        std::int64_t covered = 0;
        timed([&] {
            const zel::Entries I = zel::allocateEntries(oldFile.size + 1);
            I[0] = oldFile.size;
            sais(oldFile.bytes.get(), I.get() + 1, static_cast<int>(oldFile.size));
            zel::Scan scan(oldFile.span(), I.get(), newFile.span());
            while (const auto step = scan.next())
                covered += step->add + step->insert;
        });
        return covered == newFile.size;
    };
}

// Files that a plain scan takes quadratic time for.
void addWorstCases(std::vector<Row> &rows, const std::filesystem::path &data)
{
    const std::pair<std::string, double> cases[] = {{"zeros-4M", 5}, {"zeros-100M", 20}, {"period-50M", 20}};
    for (const auto &[name, seconds] : cases)
        rows.push_back({.unit = "suffix array and scan",
                        .data = name,
                        .work = sortAndScan(data / (name + ".old"), data / (name + ".new")),
                        .slow = true,
                        .secondsGoal = seconds});
}

double suffixArrayMemory(const std::filesystem::path &text)
{
    return 9.1 * double(std::filesystem::file_size(text)) / (1 << 20) + 8;
}

} // namespace

void addDeltaRows(std::vector<Row> &rows, const std::filesystem::path &data)
{
    for (const std::string name : {"esbuild", "biome"}) {
        const auto oldFile = data / (name + ".old");
        const auto newFile = data / (name + ".new");
        rows.push_back({.unit = "suffix array",
                        .data = name,
                        .work = sortWith(sortOurs, oldFile),
                        .peers = {{.name = "libdivsufsort64",
                                   .work = sortWith(sortTheirs, oldFile),
                                   .timeGoal = name == "biome" ? 1.2 : 0}}, // from 50 MB on
                        .memoryGoal = suffixArrayMemory(oldFile)});
        rows.push_back({.unit = "suffix array and scan",
                        .data = name,
                        .work = sortAndScan(oldFile, newFile),
                        .peers = {{.name = "zstd -19 --long=31 --patch-from",
                                   .work = command({"zstd", "-19", "--long=31", "-q", "-f", "-c",
                                                    "--patch-from=" + oldFile.string(), newFile.string()}),
                                   .timeGoal = 0.35}},
                        .slow = true});
    }
    addWorstCases(rows, data);
}

} // namespace bench
