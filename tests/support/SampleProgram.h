// Programs as a linker might lay them out, small and made to measure: functions that refer to each other, to
// constants and to cleared memory, tables of their places, and headers that say where all that lies.
#pragma once

#include "move/movedelta.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace zel {

/// An instruction, or two, that refers to something else.
struct SampleReference {
    enum Machine : unsigned char { Arm64, X86_64 };
    enum Target : unsigned char { Function, Constant, ClearedMemory };
    enum Encoding : unsigned char { Distance26, Distance19, Distance14, Split, Page, Relative };

    const char *name;
    Machine machine;
    Target target;
    Encoding encoding;
    std::uint32_t word = 0; ///< of AArch64, the distance left out
    std::uint32_t second = 0; ///< what adds to a page
    unsigned scale = 0; ///< of that
    std::array<unsigned char, 4> opcode = {}; ///< of x86-64, up to the first zero
    unsigned behind = 0; ///< bytes between the distance and the instruction's end
};

inline constexpr SampleReference SampleReferences[] = {
    {"B", SampleReference::Arm64, SampleReference::Function, SampleReference::Distance26, 0x14000000},
    {"BL", SampleReference::Arm64, SampleReference::Function, SampleReference::Distance26, 0x94000000},
    {"B.NE", SampleReference::Arm64, SampleReference::Function, SampleReference::Distance19, 0x54000001},
    {"CBZ", SampleReference::Arm64, SampleReference::Function, SampleReference::Distance19, 0xB4000003},
    {"TBNZ", SampleReference::Arm64, SampleReference::Function, SampleReference::Distance14, 0x37080003},
    {"LDR literal", SampleReference::Arm64, SampleReference::Constant, SampleReference::Distance19,
     0x58000003},
    {"ADR", SampleReference::Arm64, SampleReference::Function, SampleReference::Split, 0x10000003},
    {"ADRP, ADD", SampleReference::Arm64, SampleReference::Constant, SampleReference::Page, 0x90000009,
     0x91000123},
    {"ADRP, LDR", SampleReference::Arm64, SampleReference::ClearedMemory, SampleReference::Page, 0x90000009,
     0xF9400123, 3},
    {"ADRP, LDR Q", SampleReference::Arm64, SampleReference::Constant, SampleReference::Page, 0x90000009,
     0x3DC00123, 4},
    {"CALL", SampleReference::X86_64, SampleReference::Function, SampleReference::Relative, 0, 0, 0, {0xE8}},
    {"JNE",
     SampleReference::X86_64,
     SampleReference::Function,
     SampleReference::Relative,
     0,
     0,
     0,
     {0x0F, 0x85}},
    {"LEA",
     SampleReference::X86_64,
     SampleReference::Constant,
     SampleReference::Relative,
     0,
     0,
     0,
     {0x48, 0x8D, 0x3D}},
    {"MOV with a value",
     SampleReference::X86_64,
     SampleReference::ClearedMemory,
     SampleReference::Relative,
     0,
     0,
     0,
     {0xC7, 0x05},
     4},
    {"VMOVAPS",
     SampleReference::X86_64,
     SampleReference::Constant,
     SampleReference::Relative,
     0,
     0,
     0,
     {0xC5, 0xF8, 0x28, 0x0D}},
};

/// What each of these is, its number says: the same function is the same in all programs, but for where it
/// refers to. Code refers to the first hundred of each; functions from `Unlike` on are like nothing else.
struct SampleProgram {
    static constexpr unsigned Known = 100;
    static constexpr unsigned Unlike = 10'000;

    SampleReference::Machine machine = SampleReference::Arm64;
    bool isMachO = false;
    unsigned signatures = 0; ///< tables of the hashes of all pages, if it is Mach-O
    unsigned pageBits = 12; ///< of their pages' size
    std::uint64_t base = 0x100000000;
    std::vector<const SampleReference *> references; ///< that functions hold
    std::vector<unsigned> functions = firstNumbers();
    std::vector<unsigned> constants = firstNumbers();
    std::vector<unsigned> cleared = firstNumbers();
    unsigned words = 0; ///< numbers of references in tables
    unsigned pointers = 0;
    unsigned chained = 0;
    unsigned smallSections = 0; ///< of 16 bytes each

    static std::vector<unsigned> firstNumbers()
    {
        std::vector<unsigned> numbers(Known);
        std::iota(numbers.begin(), numbers.end(), 0u);
        return numbers;
    }
};

class SampleLinker
{
public:
    using Bytes = std::vector<unsigned char>;

    SampleLinker(const SampleProgram &program, const PageHasher &hasher)
        : m_program(program)
        , m_hasher(hasher)
    {
    }

    Bytes link()
    {
        // Twice: only when all is in place is known where references lead.
        for (int pass = 0; pass < 2; ++pass) {
            m_bytes.assign(headerSize(), 0);
            m_sections.clear();
            addSections();
        }
        m_program.isMachO ? writeMachO() : writeElf();
        return std::move(m_bytes);
    }

    /// Several programs in one file.
    static Bytes universal(const std::vector<Bytes> &programs)
    {
        SampleLinker file({}, {});
        file.m_bytes.resize(PageSize);
        file.put(0, 0xBEBAFECA, 4);
        file.putBig(4, programs.size());
        for (std::size_t i = 0; i < programs.size(); ++i) {
            const std::size_t offset = (file.m_bytes.size() + PageSize - 1) / PageSize * PageSize;
            file.m_bytes.resize(offset);
            file.append(programs[i]);
            file.putBig(16 + 20 * i, offset);
            file.putBig(20 + 20 * i, programs[i].size());
        }
        return file.m_bytes;
    }

private:
    static constexpr std::size_t PageSize = 0x1000;

    struct Section {
        std::string name;
        std::uint64_t offset, size;
        bool isCode, isCleared;
    };

    using Places = std::map<unsigned, std::uint64_t>; // by number

    void put(std::size_t at, std::uint64_t value, unsigned width)
    {
        for (unsigned i = 0; i < width; ++i)
            m_bytes[at + i] = static_cast<unsigned char>(value >> (8 * i));
    }
    void putBig(std::size_t at, std::uint64_t value)
    {
        for (unsigned i = 0; i < 4; ++i)
            m_bytes[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
    }
    void append(std::uint64_t value, unsigned width)
    {
        m_bytes.resize(m_bytes.size() + width);
        put(m_bytes.size() - width, value, width);
    }
    void append(const Bytes &bytes) { m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end()); }

    std::size_t headerSize() const { return PageSize + 80 * m_program.smallSections; }
    std::uint64_t here() const { return m_program.base + m_bytes.size(); }

    std::uint64_t placeOf(SampleReference::Target target, unsigned number) const
    {
        const Places &places = m_places[target];
        const auto found = places.find(number % SampleProgram::Known);
        return found != places.end() ? found->second : m_program.base + headerSize();
    }

    template <typename Write> void addSection(const std::string &name, bool isCode, Write write)
    {
        m_bytes.resize((m_bytes.size() + 15) / 16 * 16);
        const std::size_t start = m_bytes.size();
        write();
        if (m_bytes.size() > start)
            m_sections.push_back({name, start, m_bytes.size() - start, isCode, false});
    }

    void addSections()
    {
        addSection("__text", true, [this] {
            for (const unsigned number : m_program.functions) {
                m_places[SampleReference::Function][number] = here();
                addFunction(number);
            }
        });
        addSection("__const", false, [this] {
            for (const unsigned number : m_program.constants) {
                m_places[SampleReference::Constant][number] = here();
                std::mt19937 random(number);
                for (auto left = 2 * (2 + random() % 6); left > 0; --left)
                    append(std::uint64_t(random()) << 32 | random(), 8);
            }
        });
        addTable("__words", m_program.words, 4, m_program.base);
        addTable("__data", m_program.pointers, 8, 0);
        addTable("__chain", m_program.chained, 8, m_program.base);
        for (unsigned i = 0; i < m_program.smallSections; ++i)
            addSection("__small" + std::to_string(i), false, [&] { append(here(), 8); });
        addCleared();
    }

    void addTable(const std::string &name, unsigned count, unsigned width, std::uint64_t base)
    {
        addSection(name, false, [&] {
            std::mt19937 random(count);
            for (unsigned i = 0; i < count; ++i) {
                const auto target = SampleReference::Target(random() % (width == 8 ? 3 : 1));
                const std::uint64_t next = base != 0 && width == 8 ? std::uint64_t(2) << 51 : 0;
                append((placeOf(target, random()) - base) | next, width);
            }
        });
    }

    void addCleared()
    {
        std::uint64_t at = (m_bytes.size() + 15) / 16 * 16;
        const std::uint64_t start = at;
        for (const unsigned number : m_program.cleared) {
            m_places[SampleReference::ClearedMemory][number] = m_program.base + at;
            at += 16 * (1 + number % 7);
        }
        m_sections.push_back({"__bss", start, at - start, false, true});
    }

    void addFunction(unsigned number)
    {
        std::mt19937 random(number + 1000);
        if (number >= SampleProgram::Unlike) {
            for (auto left = 20 + random() % 20; left > 0; --left)
                append(std::uint64_t(random()) << 32 | random(), 8);
            return;
        }
        const bool isArm = m_program.machine == SampleReference::Arm64;
        for (auto left = 16 + random() % 16; left > 0; --left) {
            const unsigned chosen = random(), target = random();
            if (isArm)
                append(0xD2800000 | (random() & 0x1FFFE0) | random() % 8, 4); // MOV of a value
            else
                append(0xB8 | std::uint64_t(random()) << 8, 5);
            if (!m_program.references.empty() && left % 2)
                addReference(*m_program.references[chosen % m_program.references.size()], target);
        }
        append(isArm ? 0xD65F03C0 : 0xC3, isArm ? 4 : 1); // RET
        while (m_bytes.size() % 16 != 0)
            append(isArm ? 0xD503201F : 0x90, isArm ? 4 : 1); // NOP
    }

    void addReference(const SampleReference &reference, unsigned number)
    {
        const std::uint64_t target = placeOf(reference.target, number);
        const std::uint64_t distance = target - here();
        const auto words = static_cast<std::uint32_t>(distance >> 2);
        const auto split = [&](std::uint64_t value) {
            return (value >> 2 & 0x7FFFF) << 5 | (value & 3) << 29;
        };
        switch (reference.encoding) {
        case SampleReference::Distance26:
            return append(reference.word | (words & 0x3FFFFFF), 4);
        case SampleReference::Distance19:
            return append(reference.word | (words & 0x7FFFF) << 5, 4);
        case SampleReference::Distance14:
            return append(reference.word | (words & 0x3FFF) << 5, 4);
        case SampleReference::Split:
            return append(reference.word | split(distance), 4);
        case SampleReference::Page:
            append(reference.word | split((target >> 12) - (here() >> 12)), 4);
            append(0xD2800001 | (number & 0xFF) << 5, 4); // something in between
            return append(reference.second | (target % 4096 >> reference.scale) << 10, 4);
        case SampleReference::Relative:
            for (const unsigned char byte : reference.opcode) {
                if (byte != 0 || &byte == &reference.opcode[0])
                    append(byte, 1);
            }
            append(target - (here() + 4 + reference.behind), 4);
            append(number & 0xFF, reference.behind);
        }
    }

    void writeElf()
    {
        constexpr std::uint64_t start = 64;
        const std::uint64_t names = start + 64 * m_sections.size() + 64;
        put(0, 0x00010102464C457F, 8);
        put(18, m_program.machine == SampleReference::Arm64 ? 183 : 62, 2);
        put(40, start, 8);
        put(58, 64, 2);
        put(60, m_sections.size() + 1, 2);
        put(62, m_sections.size(), 2);
        std::uint64_t name = names;
        std::uint64_t header = start;
        for (const Section &section : m_sections) {
            put(header, name - names, 4);
            put(header + 4, section.isCleared ? 8 : 1, 4);
            put(header + 8, section.isCode ? 6 : 3, 8);
            put(header + 16, m_program.base + section.offset, 8);
            put(header + 24, section.offset, 8);
            put(header + 32, section.size, 8);
            std::ranges::copy(section.name, m_bytes.begin() + std::ptrdiff_t(name));
            name += section.name.size() + 1;
            header += 64;
        }
        put(header + 24, names, 8);
    }

    void writeMachO()
    {
        const std::uint64_t commands = 72 + 80 * m_sections.size();
        put(0, 0xFEEDFACF, 4);
        put(4, m_program.machine == SampleReference::Arm64 ? 0x0100000C : 0x01000007, 4);
        put(16, m_program.signatures > 0 ? 2 : 1, 4);
        put(32, 0x19, 4);
        put(36, commands, 4);
        put(32 + 24, m_program.base, 8);
        put(32 + 48, m_bytes.size(), 8);
        put(32 + 64, m_sections.size(), 4);
        std::uint64_t header = 32 + 72;
        for (const Section &section : m_sections) {
            std::ranges::copy(section.name, m_bytes.begin() + std::ptrdiff_t(header));
            std::ranges::copy(std::string_view("__ALL"), m_bytes.begin() + std::ptrdiff_t(header) + 16);
            put(header + 32, m_program.base + section.offset, 8);
            put(header + 40, section.size, 8);
            put(header + 48, section.isCleared ? 0 : section.offset, 4);
            put(header + 64, section.isCode ? 0x80000400 : section.isCleared ? 1 : 0, 4);
            header += 80;
        }
        if (m_program.signatures > 0)
            sign(header);
    }

    // With the command that `header` is the place of.
    void sign(std::uint64_t header)
    {
        m_bytes.resize((m_bytes.size() + 15) / 16 * 16);
        const std::size_t start = m_bytes.size(), pageSize = std::size_t(1) << m_program.pageBits;
        const std::size_t pages = (start + pageSize - 1) / pageSize;
        const std::size_t index = 12 + 8 * m_program.signatures, directorySize = 64 + 32 * pages;
        m_bytes.resize(start + index + m_program.signatures * directorySize);
        put(header, 0x1D, 4);
        put(header + 4, 16, 4);
        put(header + 8, start, 4);
        put(header + 12, m_bytes.size() - start, 4);
        putBig(start, 0xFADE0CC0);
        putBig(start + 8, m_program.signatures);
        for (unsigned i = 0; i < m_program.signatures; ++i) {
            const std::size_t directory = start + index + i * directorySize;
            putBig(start + 16 + 8 * i, directory - start);
            putBig(directory, 0xFADE0C02);
            putBig(directory + 16, 64);
            putBig(directory + 28, pages);
            putBig(directory + 32, start);
            putBig(directory + 36, 32 << 24 | 2 << 16 | m_program.pageBits); // SHA-256
        }
        for (std::size_t i = 0; i < pages * m_program.signatures; ++i) {
            const std::size_t page = i % pages, from = page * pageSize;
            m_hasher(std::span(m_bytes).subspan(from, std::min(pageSize, start - from)),
                     m_bytes.data() + start + index + i / pages * directorySize + 64 + 32 * page);
        }
    }

    SampleProgram m_program;
    PageHasher m_hasher;
    Bytes m_bytes;
    std::vector<Section> m_sections;
    std::array<Places, 3> m_places;
};

} // namespace zel
