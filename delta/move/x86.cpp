#include "x86.h"

#include <array>

namespace zel::x86 {

namespace {

// What follows an opcode.
enum Form : unsigned char {
    None = 0,
    ModRM = 1,
    Imm8 = 2,
    Imm16 = 4,
    Imm32 = 8, // 16 bits with an operand-size prefix
    Address = 16, // eight bytes
    Branch32 = 32,
    Invalid = 64,
};

using Forms = std::array<unsigned char, 256>;

constexpr void fill(Forms &forms, int from, int to, int form)
{
    for (int i = from; i <= to; ++i)
        forms[static_cast<std::size_t>(i)] = static_cast<unsigned char>(form);
}

constexpr Forms makeOneByteForms()
{
    Forms forms = {};
    for (int row = 0; row < 0x40; row += 8) { // ADD, OR, ADC, SBB, AND, SUB, XOR, CMP
        fill(forms, row, row + 3, ModRM);
        fill(forms, row + 4, row + 4, Imm8);
        fill(forms, row + 5, row + 5, Imm32);
        fill(forms, row + 6, row + 7, Invalid);
    }
    fill(forms, 0x60, 0x62, Invalid);
    fill(forms, 0x63, 0x63, ModRM);
    fill(forms, 0x68, 0x68, Imm32);
    fill(forms, 0x69, 0x69, ModRM | Imm32);
    fill(forms, 0x6A, 0x6A, Imm8);
    fill(forms, 0x6B, 0x6B, ModRM | Imm8);
    fill(forms, 0x70, 0x7F, Imm8);
    fill(forms, 0x80, 0x80, ModRM | Imm8);
    fill(forms, 0x81, 0x81, ModRM | Imm32);
    fill(forms, 0x82, 0x82, Invalid);
    fill(forms, 0x83, 0x83, ModRM | Imm8);
    fill(forms, 0x84, 0x8F, ModRM);
    fill(forms, 0x9A, 0x9A, Invalid);
    fill(forms, 0xA0, 0xA3, Address);
    fill(forms, 0xA8, 0xA8, Imm8);
    fill(forms, 0xA9, 0xA9, Imm32);
    fill(forms, 0xB0, 0xB7, Imm8);
    fill(forms, 0xB8, 0xBF, Imm32); // eight bytes with REX.W
    fill(forms, 0xC0, 0xC1, ModRM | Imm8);
    fill(forms, 0xC2, 0xC2, Imm16);
    fill(forms, 0xC6, 0xC6, ModRM | Imm8);
    fill(forms, 0xC7, 0xC7, ModRM | Imm32);
    fill(forms, 0xC8, 0xC8, Imm16 | Imm8);
    fill(forms, 0xCA, 0xCA, Imm16);
    fill(forms, 0xCD, 0xCD, Imm8);
    fill(forms, 0xCE, 0xCE, Invalid);
    fill(forms, 0xD0, 0xD3, ModRM);
    fill(forms, 0xD4, 0xD6, Invalid);
    fill(forms, 0xD8, 0xDF, ModRM);
    fill(forms, 0xE0, 0xE7, Imm8);
    fill(forms, 0xE8, 0xE9, Branch32);
    fill(forms, 0xEA, 0xEA, Invalid);
    fill(forms, 0xEB, 0xEB, Imm8);
    fill(forms, 0xF6, 0xF7, ModRM); // and an immediate in two of eight cases
    fill(forms, 0xFE, 0xFF, ModRM);
    return forms;
}

constexpr Forms makeTwoByteForms()
{
    Forms forms = {};
    fill(forms, 0x00, 0xFF, ModRM);
    fill(forms, 0x04, 0x04, Invalid);
    fill(forms, 0x05, 0x09, None);
    fill(forms, 0x0A, 0x0A, Invalid);
    fill(forms, 0x0B, 0x0B, None);
    fill(forms, 0x0C, 0x0C, Invalid);
    fill(forms, 0x0E, 0x0E, None);
    fill(forms, 0x0F, 0x0F, Invalid);
    fill(forms, 0x24, 0x27, Invalid);
    fill(forms, 0x30, 0x37, None);
    fill(forms, 0x39, 0x39, Invalid);
    fill(forms, 0x3B, 0x3F, Invalid);
    fill(forms, 0x70, 0x73, ModRM | Imm8);
    fill(forms, 0x77, 0x77, None);
    fill(forms, 0x80, 0x8F, Branch32);
    fill(forms, 0xA0, 0xA2, None);
    fill(forms, 0xA4, 0xA4, ModRM | Imm8);
    fill(forms, 0xA8, 0xAA, None);
    fill(forms, 0xAC, 0xAC, ModRM | Imm8);
    fill(forms, 0xBA, 0xBA, ModRM | Imm8);
    fill(forms, 0xC2, 0xC2, ModRM | Imm8);
    fill(forms, 0xC4, 0xC6, ModRM | Imm8);
    fill(forms, 0xC8, 0xCF, None);
    return forms;
}

constexpr Forms OneByteForms = makeOneByteForms();
constexpr Forms TwoByteForms = makeTwoByteForms();

bool isLegacyPrefix(unsigned char byte)
{
    switch (byte) {
    case 0x26:
    case 0x2E:
    case 0x36:
    case 0x3E:
    case 0x64:
    case 0x65:
    case 0x66:
    case 0x67:
    case 0xF0:
    case 0xF2:
    case 0xF3:
        return true;
    default:
        return false;
    }
}

class Decoder
{
public:
    explicit Decoder(std::span<const unsigned char> bytes)
        : m_bytes(bytes.first(std::min(bytes.size(), LongestInstruction)))
    {
    }

    Instruction decode()
    {
        if (!decodeAny() || m_at > m_bytes.size())
            return {};
        m_found.length = static_cast<unsigned char>(m_at);
        return m_found;
    }

private:
    bool hasNext() const { return m_at < m_bytes.size(); }
    unsigned char next() { return m_bytes[m_at++]; }

    bool decodeAny()
    {
        bool isSmall = false;
        while (hasNext() && isLegacyPrefix(m_bytes[m_at]))
            isSmall = next() == 0x66 || isSmall;
        bool isWide = false;
        if (hasNext() && (m_bytes[m_at] & 0xF0) == 0x40)
            isWide = (next() & 8) != 0;
        if (!hasNext())
            return false;
        const unsigned char opcode = next();
        switch (opcode) {
        case 0x0F:
            return decodeTwoByte();
        case 0xC4:
            return decodeVector(2, 0x1F);
        case 0xC5:
            return decodeVector(1, 0);
        case 0x62:
            return decodeVector(3, 7);
        default:
            return decodeOneByte(opcode, isSmall, isWide);
        }
    }

    bool decodeOneByte(unsigned char opcode, bool isSmall, bool isWide)
    {
        const unsigned form = OneByteForms[opcode];
        const std::size_t modRM = m_at;
        if (!decodeForm(form))
            return false;
        const std::size_t operand = isSmall ? 2 : 4;
        if (form & Imm32)
            m_at += (opcode & 0xF8) == 0xB8 && isWide ? 8 : operand;
        if (form & Address)
            m_at += 8;
        const bool isTest = (opcode & 0xFE) == 0xF6 && (m_bytes[modRM] >> 3 & 7) < 2;
        if (isTest)
            m_at += opcode == 0xF6 ? 1 : operand;
        return true;
    }

    bool decodeTwoByte()
    {
        if (!hasNext())
            return false;
        const unsigned char opcode = next();
        if (opcode == 0x38 || opcode == 0x3A) { // the three-byte maps
            if (!hasNext())
                return false;
            ++m_at;
            return decodeForm(opcode == 0x38 ? ModRM : ModRM | Imm8);
        }
        return decodeForm(TwoByteForms[opcode]);
    }

    // VEX and EVEX: so many bytes behind the first one, whose lowest bits name the map if there are several.
    bool decodeVector(std::size_t prefix, unsigned mapMask)
    {
        if (m_bytes.size() - m_at <= prefix)
            return false;
        const unsigned map = mapMask == 0 ? 1 : m_bytes[m_at] & mapMask;
        m_at += prefix;
        const unsigned char opcode = next();
        if (map == 1 && opcode == 0x77)
            return true; // VZEROUPPER
        if (map == 1)
            return decodeForm(ModRM | (TwoByteForms[opcode] & Imm8));
        if (map == 3)
            return decodeForm(ModRM | Imm8);
        return (map == 2 || map == 5 || map == 6) && decodeForm(ModRM);
    }

    bool decodeForm(unsigned form)
    {
        if (form & Invalid)
            return false;
        if ((form & ModRM) && !decodeModRM())
            return false;
        if (form & Branch32) {
            m_found.distance = static_cast<unsigned char>(m_at);
            m_found.isBranch = true;
            m_at += DistanceSize;
        }
        m_at += (form & Imm8 ? 1 : 0) + (form & Imm16 ? 2 : 0);
        return true;
    }

    bool decodeModRM()
    {
        if (!hasNext())
            return false;
        const unsigned char modRM = next();
        const unsigned mode = modRM >> 6;
        const unsigned memory = modRM & 7;
        if (mode == 3)
            return true;
        if (memory == 4) { // SIB
            if (!hasNext())
                return false;
            if (const unsigned base = next() & 7; mode == 0 && base == 5)
                m_at += 4;
        } else if (mode == 0 && memory == 5) { // relative to the next instruction
            m_found.distance = static_cast<unsigned char>(m_at);
            m_at += DistanceSize;
        }
        m_at += mode == 1 ? 1 : mode == 2 ? 4 : 0;
        return true;
    }

    std::span<const unsigned char> m_bytes;
    std::size_t m_at = 0;
    Instruction m_found;
};

} // namespace

Instruction decode(std::span<const unsigned char> bytes)
{
    return Decoder(bytes).decode();
}

} // namespace zel::x86
