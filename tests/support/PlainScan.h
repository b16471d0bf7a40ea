// The generator's scan as it is published, without any short cut: the measure for the real one.
#pragma once

#include "delta/deltaformat.h"
#include "generate/sais.h"
#include "generate/scan.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace zel {

/// Looks at every byte of every step, in the order in which docs/delta-format.md has them.
class PlainScan
{
public:
    /// Both belong to the caller and outlive the scan.
    PlainScan(std::string_view oldBytes, std::string_view newBytes)
        : m_old(oldBytes)
        , m_new(newBytes)
        , m_oldSize(Index(oldBytes.size()))
        , m_newSize(Index(newBytes.size()))
        , m_I(oldBytes.size() + 1)
    {
        m_I[0] = m_oldSize; // the sort has tests of its own
        sais(reinterpret_cast<const unsigned char *>(m_old.data()), m_I.data() + 1, int(m_oldSize));
    }

    const std::vector<std::int64_t> &suffixes() const { return m_I; }

    std::vector<ScanStep> steps()
    {
        while (scan < m_newSize) {
            Index oldscore = 0;
            scan += len;
            for (Index scsc = scan; scan < m_newSize; ++scan) {
                search();
                for (; scsc < scan + len; ++scsc)
                    oldscore += goesOn(scsc);
                if ((len == oldscore && len != 0) || len > oldscore + 8)
                    break;
                oldscore -= goesOn(scan);
            }
            if (len != oldscore || scan == m_newSize)
                addStep();
        }
        return m_steps;
    }

private:
    using Index = std::int64_t;

    bool isEqual(Index inOld, Index inNew) const { return m_old[size_t(inOld)] == m_new[size_t(inNew)]; }
    bool goesOn(Index i) const { return i + lastoffset < m_oldSize && isEqual(i + lastoffset, i); }

    Index common(Index suffix) const
    {
        Index length = 0;
        while (suffix + length < m_oldSize && scan + length < m_newSize
               && isEqual(suffix + length, scan + length))
            ++length;
        return length;
    }

    void search()
    {
        Index st = 0;
        Index en = m_oldSize;
        while (en - st >= 2) {
            const Index x = st + (en - st) / 2;
            const Index suffix = m_I[size_t(x)];
            const Index limit = std::min(m_oldSize - suffix, m_newSize - scan);
            if (std::memcmp(m_old.data() + suffix, m_new.data() + scan, size_t(limit)) < 0)
                st = x;
            else
                en = x;
        }
        const Index first = m_I[size_t(st)];
        const Index second = m_I[size_t(en)];
        pos = common(first) > common(second) ? first : second;
        len = common(pos);
    }

    /// How far it is worth going on: to where the bytes that are equal outnumber the others the most.
    template <typename IsEqual> static Index extent(Index limit, IsEqual isEqualAt)
    {
        Index length = 0;
        for (Index i = 0, s = 0, best = 0; i < limit;) {
            s += isEqualAt(i);
            ++i;
            if (s * 2 - i > best * 2 - length) {
                best = s;
                length = i;
            }
        }
        return length;
    }

    Index forward() const
    {
        return extent(std::min(scan - lastscan, m_oldSize - lastpos),
                      [this](Index i) { return isEqual(lastpos + i, lastscan + i); });
    }

    Index backward() const
    {
        return extent(std::min(scan - lastscan, pos),
                      [this](Index i) { return isEqual(pos - 1 - i, scan - 1 - i); });
    }

    void addStep()
    {
        Index lenf = forward();
        Index lenb = scan < m_newSize ? backward() : 0;
        if (const Index overlap = (lastscan + lenf) - (scan - lenb); overlap > 0) {
            Index lens = 0;
            for (Index i = 0, s = 0, best = 0; i < overlap; ++i) {
                s += isEqual(lastpos + lenf - overlap + i, lastscan + lenf - overlap + i);
                s -= isEqual(pos - lenb + i, scan - lenb + i);
                if (s > best) {
                    best = s;
                    lens = i + 1;
                }
            }
            lenf += lens - overlap;
            lenb -= lens;
        }
        m_steps.push_back(
            {lenf, (scan - lenb) - (lastscan + lenf), (pos - lenb) - (lastpos + lenf), lastpos, lastscan});
        lastscan = scan - lenb;
        lastpos = pos - lenb;
        lastoffset = pos - scan;
    }

    const std::string_view m_old;
    const std::string_view m_new;
    const Index m_oldSize;
    const Index m_newSize;
    std::vector<Index> m_I;
    Index scan = 0, len = 0, pos = 0, lastscan = 0, lastpos = 0, lastoffset = 0; // as it is published
    std::vector<ScanStep> m_steps;
};

/// The delta that steps make.
inline std::string deltaOf(const std::vector<ScanStep> &steps, std::string_view oldBytes,
                           std::string_view newBytes)
{
    std::string control, difference, extra;
    const auto add = [](std::string &to, std::int64_t value) {
        const auto bytes = encodeDeltaInteger(value);
        to.append(bytes.begin(), bytes.end());
    };
    for (const ScanStep &step : steps) {
        for (const std::int64_t value : {step.add, step.insert, step.seek})
            add(control, value);
        for (std::int64_t i = 0; i < step.add; ++i)
            difference += char(newBytes[size_t(step.newStart + i)] - oldBytes[size_t(step.oldStart + i)]);
        extra += newBytes.substr(size_t(step.newStart + step.add), size_t(step.insert));
    }
    std::string delta(DeltaMagic.begin(), DeltaMagic.end());
    for (const std::size_t value : {control.size(), difference.size(), newBytes.size()})
        add(delta, std::int64_t(value));
    return delta + control + difference + extra;
}

/// The steps of the scan that makes deltas.
inline std::vector<ScanStep> realSteps(std::string_view oldBytes, const std::vector<std::int64_t> &I,
                                       std::string_view newBytes, const ShortCuts &shortCuts = {})
{
    const auto view = [](std::string_view text) {
        return std::span(reinterpret_cast<const unsigned char *>(text.data()), text.size());
    };
    Scan scan(view(oldBytes), I.data(), view(newBytes), shortCuts);
    std::vector<ScanStep> steps;
    while (const auto step = scan.next())
        steps.push_back(*step);
    return steps;
}

/// Short cuts that are taken at once, so that small files lead through all of them.
inline constexpr ShortCuts EagerShortCuts{
    .longMatch = 4, .worthLearning = 8, .chunkSize = 256, .reach = 32, .prefixWidth = 2};

} // namespace zel
