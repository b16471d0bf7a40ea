#include "SignatureOutline.h"

#include <openssl/asn1.h>

#include <algorithm>
#include <array>

namespace zel {

namespace {

// The first bytes of elements: class, form and number of their tags.
constexpr uchar Integer = 0x02;
constexpr uchar OctetString = 0x04;
constexpr uchar ObjectIdentifier = 0x06;
constexpr uchar Sequence = 0x30;
constexpr uchar Set = 0x31;
constexpr uchar FirstOption = 0xa0;

constexpr QByteArrayView DataType("\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01");
constexpr QByteArrayView SignedDataType("\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02");
constexpr std::array StrongDigests{QByteArrayView("\x60\x86\x48\x01\x65\x03\x04\x02\x01"),
                                   QByteArrayView("\x60\x86\x48\x01\x65\x03\x04\x02\x02"),
                                   QByteArrayView("\x60\x86\x48\x01\x65\x03\x04\x02\x03")};

// Goes over elements that follow each other. Once one is not what it has to be, nothing more is found.
class DerReader
{
public:
    explicit DerReader(QByteArrayView elements)
        : m_left(elements)
    {
    }

    bool isAt(uchar tag) const { return !m_left.isEmpty() && uchar(m_left.front()) == tag; }
    bool isAtEnd() const { return !m_left.isNull() && m_left.isEmpty(); }

    // The content of the next element; null when that is another, or of no stated length.
    QByteArrayView take(uchar tag)
    {
        const auto *const begin = reinterpret_cast<const uchar *>(m_left.data());
        const uchar *at = begin;
        long length = 0;
        int number = 0;
        int kind = 0;
        constexpr int unsoundOrIndefinite = 0x80 | 1;
        const bool found = isAt(tag)
            && (ASN1_get_object(&at, &length, &number, &kind, long(m_left.size())) & unsoundOrIndefinite)
                == 0;
        const QByteArrayView content = found ? QByteArrayView(at, length) : QByteArrayView();
        m_left = found ? m_left.sliced(at - begin + length) : QByteArrayView();
        return content;
    }

    // How many there are, each with this tag; -1 when one is another.
    int count(uchar tag)
    {
        int count = 0;
        while (isAt(tag) && !take(tag).isNull())
            ++count;
        return isAtEnd() ? count : -1;
    }

private:
    QByteArrayView m_left;
};

bool isStrong(QByteArrayView algorithm)
{
    const QByteArrayView name = DerReader(algorithm).take(ObjectIdentifier);
    return std::find(StrongDigests.begin(), StrongDigests.end(), name) != StrongDigests.end();
}

} // namespace

SignatureOutline SignatureOutline::of(QByteArrayView signature)
{
    SignatureOutline outline;
    DerReader file(signature);
    DerReader info(file.take(Sequence));
    const bool isSigned = info.take(ObjectIdentifier) == SignedDataType;
    DerReader wrapped(info.take(FirstOption));
    DerReader parts(wrapped.take(Sequence));
    parts.take(Integer);
    DerReader digests(parts.take(Set));
    DerReader inside(parts.take(Sequence));
    outline.isOfData = inside.take(ObjectIdentifier) == DataType;
    bool isSound = isSigned && file.isAtEnd() && info.isAtEnd() && wrapped.isAtEnd();
    if (inside.isAt(FirstOption)) {
        DerReader content(inside.take(FirstOption));
        outline.content = content.take(OctetString);
        isSound = isSound && content.isAtEnd();
    }
    if (parts.isAt(FirstOption))
        outline.certificates = DerReader(parts.take(FirstOption)).count(Sequence);
    outline.signers = DerReader(parts.take(Set)).count(Sequence);
    while (digests.isAt(Sequence))
        ++(isStrong(digests.take(Sequence)) ? outline.strongDigests : outline.otherDigests);
    outline.isWhole = isSound && inside.isAtEnd() && parts.isAtEnd() && digests.isAtEnd()
        && outline.certificates >= 0 && outline.signers >= 0;
    return outline;
}

} // namespace zel
