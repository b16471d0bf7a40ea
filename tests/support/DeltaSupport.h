// Inputs for the tests of the delta engine, and deltas put together by hand.
#pragma once

#include "delta/deltaformat.h"

#include <QByteArray>
#include <QList>
#include <random>

inline std::span<const unsigned char> view(const QByteArray &bytes)
{
    return {reinterpret_cast<const unsigned char *>(bytes.constData()), std::size_t(bytes.size())};
}

inline QByteArray toBytes(std::span<const std::byte> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), qsizetype(bytes.size())};
}

/// `size` bytes of the first `alphabet` values; the same seed gives the same bytes.
inline QByteArray randomBytes(qsizetype size, int alphabet, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>(random() % unsigned(alphabet));
    return bytes;
}

/// Puts a few changes, insertions and removals of up to 40 bytes into a text.
inline QByteArray edited(QByteArray bytes, int edits, unsigned seed)
{
    std::mt19937 random(seed);
    for (int i = 0; i < edits; ++i) {
        const qsizetype at = random() % unsigned(bytes.size() + 1);
        const qsizetype length = random() % 40;
        if (random() % 2)
            bytes.remove(at, length);
        if (random() % 3)
            bytes.insert(at, randomBytes(length, 256, random()));
    }
    return bytes;
}

/// The texts in which every suffix is much like another.
inline QByteArray fibonacciBytes(qsizetype size)
{
    QByteArray shorter("b");
    QByteArray longer("a");
    while (longer.size() < size)
        shorter = std::exchange(longer, longer + shorter);
    return longer.first(size);
}

inline QByteArray deltaIntegers(const QList<qint64> &values)
{
    QByteArray bytes;
    for (const qint64 value : values) {
        const auto encoded = zel::encodeDeltaInteger(value);
        bytes.append(reinterpret_cast<const char *>(encoded.data()), qsizetype(encoded.size()));
    }
    return bytes;
}

/// A delta whose header agrees with its blocks.
inline QByteArray handMadeDelta(qint64 newSize, const QList<qint64> &control, const QByteArray &diff,
                                const QByteArray &extra)
{
    return "BSDIFN40" + deltaIntegers({qint64(8 * control.size()), qint64(diff.size()), newSize})
        + deltaIntegers(control) + diff + extra;
}
