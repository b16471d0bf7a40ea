// How much two files share is estimated from the samples that both have: at the coarser of their levels each
// stands for 2^level bytes. The samples of the old files are one sorted list, in which those of a new file
// are looked up. One that very many files have (a licence, padding) tells nothing and is passed over, which
// also keeps the whole linear.
#include "SimilarFiles.h"

#include <algorithm>
#include <bit>
#include <map>
#include <tuple>

namespace zel {

namespace {

constexpr qsizetype Window = 32;
constexpr std::uint64_t Base = 0x9E3779B97F4A7C15; // of the rolling hash; any odd number of many bits
constexpr int FinestLevel = 3;
constexpr std::size_t SamplesWanted = 512;
constexpr std::size_t MostHolders = 64; // of a sample that tells anything
constexpr int LeastShared = 4; // samples; fewer may be chance

// All bits of the window decide which are low, and what stands in the list.
std::uint64_t mixed(std::uint64_t hash)
{
    hash ^= hash >> 32;
    hash *= 0xD6E8FEB86659FD93;
    return hash ^ (hash >> 32);
}

int levelFor(qsizetype size)
{
    return std::max<int>(FinestLevel, std::bit_width(std::size_t(size) / SamplesWanted));
}

// In eighths, at most all.
qint64 eighths(qint64 part, qint64 whole)
{
    return std::min<qint64>(8, 8 * part / std::max<qint64>(1, whole));
}

qsizetype likeness(QStringView a, QStringView b)
{
    const auto front = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
    const auto back = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend()).first - a.rbegin();
    return front + back;
}

} // namespace

FileSketch FileSketch::of(QByteArrayView content)
{
    FileSketch sketch;
    sketch.level = levelFor(content.size());
    if (content.size() < Window)
        return sketch;
    std::uint64_t outgoing = 1; // Base to the power of the window's length
    for (qsizetype i = 0; i < Window; ++i)
        outgoing *= Base;
    const auto *const bytes = reinterpret_cast<const unsigned char *>(content.data());
    std::uint64_t hash = 0;
    for (qsizetype i = 0; i < content.size(); ++i) {
        hash = hash * Base + bytes[i] + 1;
        if (i >= Window)
            hash -= outgoing * (bytes[i - Window] + std::uint64_t(1));
        const std::uint64_t value = mixed(hash);
        if (i + 1 >= Window && value >> (64 - sketch.level) == 0)
            sketch.samples.push_back(std::uint32_t(value));
    }
    std::ranges::sort(sketch.samples);
    const auto rest = std::ranges::unique(sketch.samples);
    sketch.samples.erase(rest.begin(), rest.end());
    return sketch;
}

SimilarFiles::SimilarFiles(std::vector<SketchedFile> files)
    : m_files(std::move(files))
{
    for (std::size_t i = 0; i < m_files.size(); ++i) {
        for (const std::uint32_t hash : m_files[i].sketch.samples)
            m_samples.push_back({hash, std::uint32_t(i)});
    }
    std::ranges::sort(m_samples, {}, &Sample::hash);
}

std::optional<QString> SimilarFiles::mostLike(const SketchedFile &wanted) const
{
    std::map<std::uint32_t, int> shared;
    for (const std::uint32_t hash : wanted.sketch.samples) {
        const auto holders = std::ranges::equal_range(m_samples, hash, {}, &Sample::hash);
        if (std::size_t(holders.size()) > MostHolders)
            continue;
        for (const Sample &sample : holders)
            ++shared[sample.file];
    }
    std::optional<QString> best;
    std::tuple<qint64, qsizetype, qint64> most;
    for (const auto &[index, count] : shared) {
        const SketchedFile &file = m_files[index];
        const qint64 bytes = qint64(count) << std::max(file.sketch.level, wanted.sketch.level);
        const qint64 part = eighths(bytes, wanted.size);
        if (count < LeastShared || part == 0)
            continue;
        // A file at the same place was changed, most likely: another one has to share clearly more.
        const qint64 home = file.path == wanted.path ? 2 : 0;
        const std::tuple rank(part + home, likeness(file.path, wanted.path), bytes);
        if (!best || rank > most) {
            best = file.path;
            most = rank;
        }
    }
    return best;
}

} // namespace zel
