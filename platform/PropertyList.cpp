// libplist reads the lists, but it trusts them. Of a list in XML it compares each key with those before it
// that meet it in its table, which has a fixed size, and moves the rest of a text behind each reference in
// it. It calls itself once per level of nesting when it reads a binary list and when it frees any list, and
// copies an object of a binary list for each reference to it, so that a small file can stand for a list of
// any size. Over a key with a NUL in it, it ends the process.
//
// So the bytes are looked at first, by the cheapest rule that cannot let such a list pass: marks are counted
// in XML, and of a binary list the outline is read and what it unfolds to is added up. The rule may refuse
// odd lists that would do no harm, but none that anything writes for a bundle. A reader of our own was
// rejected: it would have to read two formats as exactly as the tools that write them.
#include "PropertyList.h"

#include <QByteArrayView>
#include <QDateTime>

#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <plist/plist.h>
#include <vector>

namespace {

// Bounds the nesting as well; a large application's Info.plist holds hundreds.
constexpr quint64 MaxContainers = 4096;
constexpr quint64 MaxKeys = 10'000; // each may be compared with all that came before
constexpr quint64 MaxMoved = quint64(4) << 30; // bytes
constexpr quint64 MaxObjects = 1 << 20;
constexpr quint64 MaxUnfolded = 64 << 20; // bytes
constexpr quint64 NodeSize = 128; // what the reader spends on a value, besides its bytes
constexpr qsizetype TrailerSize = 32;

std::optional<quint64> bigEndian(QByteArrayView bytes, quint64 at, quint64 width)
{
    const quint64 size = quint64(bytes.size());
    if (width == 0 || width > 8 || at > size || width > size - at)
        return std::nullopt;
    quint64 value = 0;
    for (quint64 i = at; i < at + width; ++i)
        value = value << 8 | quint8(bytes[qsizetype(i)]);
    return value;
}

struct Object {
    enum Kind { Data = 0x4, Ascii = 0x5, Utf16 = 0x6, Array = 0xa, Set = 0xc, Dictionary = 0xd };

    int kind = 0;
    quint64 count = 0; // of bytes, UTF-16 units, members or pairs
    quint64 start = 0; // where the content begins

    bool isContainer() const { return kind == Array || kind == Set || kind == Dictionary; }
    bool isCounted() const { return isContainer() || kind == Data || kind == Ascii || kind == Utf16; }
    quint64 references() const { return kind == Dictionary ? 2 * count : isContainer() ? count : 0; }
    quint64 unfolded() const { return NodeSize + (isContainer() || !isCounted() ? 0 : 2 * count); }
};

std::optional<Object> objectAt(QByteArrayView bytes, quint64 at)
{
    const std::optional<quint64> marker = bigEndian(bytes, at, 1);
    if (!marker)
        return std::nullopt;
    Object object{int(*marker >> 4), *marker & 0xf, at + 1};
    if (object.isCounted()
        && object.count == 0xf) { // the count stands behind the marker, as an integer object
        const std::optional<quint64> width = bigEndian(bytes, at + 1, 1);
        const quint64 size = width ? 1ull << (*width & 0xf) : 0;
        const std::optional<quint64> count = bigEndian(bytes, at + 2, size);
        if (!count)
            return std::nullopt;
        object.count = *count;
        object.start = at + 2 + size;
    }
    if (object.isCounted() && object.count > quint64(bytes.size()))
        return std::nullopt;
    return object;
}

struct Outline {
    std::vector<Object> objects;
    quint64 referenceSize = 0;
};

std::optional<Outline> outlineOf(QByteArrayView bytes)
{
    if (bytes.size() < TrailerSize)
        return std::nullopt;
    const QByteArrayView trailer = bytes.last(TrailerSize);
    const quint64 offsetSize = quint8(trailer[6]);
    const quint64 objects = *bigEndian(trailer, 8, 8);
    const quint64 table = *bigEndian(trailer, 24, 8);
    if (objects > MaxObjects || table > quint64(bytes.size()))
        return std::nullopt;
    Outline outline{{}, quint8(trailer[7])};
    for (quint64 i = 0; i < objects; ++i) {
        const std::optional<quint64> offset = bigEndian(bytes, table + i * offsetSize, offsetSize);
        const std::optional<Object> object = offset ? objectAt(bytes, *offset) : std::nullopt;
        if (!object)
            return std::nullopt;
        outline.objects.push_back(*object);
    }
    return outline;
}

// The reader ends the process when it hands out a key with a NUL in it, which only UTF-16 can bring that far.
bool canBeKey(QByteArrayView bytes, const Object &object)
{
    if (object.kind != Object::Utf16)
        return true;
    for (quint64 i = 0; i < object.count; ++i) {
        if (bigEndian(bytes, object.start + 2 * i, 2).value_or(0) == 0)
            return false;
    }
    return true;
}

// No writer shares a container. With each referenced once, the containers form a tree, and what the list
// unfolds to is no more than the sum over all references.
bool isTameBinary(QByteArrayView bytes)
{
    const std::optional<Outline> outline = outlineOf(bytes);
    if (!outline)
        return false;
    std::vector<bool> held(outline->objects.size());
    quint64 containers = 0;
    quint64 unfolded = 0;
    for (const Object &object : outline->objects) {
        if (object.isContainer() && ++containers > MaxContainers)
            return false;
        for (quint64 i = 0; i < object.references(); ++i) {
            const auto target =
                bigEndian(bytes, object.start + i * outline->referenceSize, outline->referenceSize);
            if (!target || *target >= held.size())
                return false;
            const Object &referenced = outline->objects[*target];
            if (referenced.isContainer() && held[*target])
                return false;
            held[*target] = true;
            unfolded += referenced.unfolded();
            if (unfolded > MaxUnfolded)
                return false;
            const bool key = object.kind == Object::Dictionary && i < object.count;
            if (key && !canBeKey(bytes, referenced))
                return false;
        }
    }
    return true;
}

// Behind each reference in a text ("&lt;"), the reader moves the rest of the text.
quint64 bytesMoved(QByteArrayView bytes)
{
    quint64 moved = 0;
    quint64 references = 0;
    qsizetype start = 0;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        references += bytes[i] == '&';
        if (bytes[i] != '<' && i + 1 < bytes.size())
            continue;
        moved += references * quint64(i - start);
        references = 0;
        start = i;
    }
    return moved;
}

bool isTameText(const QByteArray &bytes)
{
    return quint64(bytes.count("<key")) <= MaxKeys && bytesMoved(bytes) <= MaxMoved;
}

// Whether a list can be read without exhausting time, stack or memory, and without an abort. It may still be
// malformed.
bool isTame(QByteArrayView bytes)
{
    // Whatever the reader takes for the start of a container has these bytes, so this can only count too
    // many. It is done for binary lists too: what the reader makes of a damaged head is its own affair.
    const QByteArray text = QByteArray::fromRawData(bytes.data(), bytes.size());
    if (quint64(text.count("<array")) + quint64(text.count("<dict")) > MaxContainers)
        return false;
    return bytes.startsWith("bplist") ? isTameBinary(bytes) : isTameText(text);
}

constexpr int MaxDepth = 64;

using Memory = std::unique_ptr<void, decltype(&std::free)>;
using List = std::unique_ptr<void, decltype(&plist_free)>;

QVariant toVariant(plist_t node, int depth);

QVariantList toList(plist_t node, int depth)
{
    QVariantList list;
    plist_array_iter start = nullptr;
    plist_array_new_iter(node, &start);
    const Memory iterator(start, std::free);
    plist_t item = nullptr;
    for (plist_array_next_item(node, start, &item); item; plist_array_next_item(node, start, &item)) {
        const QVariant value = toVariant(item, depth + 1);
        if (value.isValid())
            list.append(value);
    }
    return list;
}

QVariantMap toMap(plist_t node, int depth)
{
    QVariantMap map;
    plist_dict_iter start = nullptr;
    plist_dict_new_iter(node, &start);
    const Memory iterator(start, std::free);
    for (;;) {
        char *name = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, start, &name, &item);
        const Memory key(name, std::free);
        if (!item)
            return map;
        const QVariant value = toVariant(item, depth + 1);
        if (value.isValid())
            map.insert(QString::fromUtf8(name), value);
    }
}

QDateTime toDate(plist_t node)
{
    static const QDateTime epoch(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC); // where the format counts from
    int32_t seconds = 0;
    int32_t microseconds = 0;
    plist_get_date_val(node, &seconds, &microseconds);
    return epoch.addSecs(seconds).addMSecs(microseconds / 1000);
}

QVariant toVariant(plist_t node, int depth)
{
    if (depth > MaxDepth)
        return {};
    uint64_t number = 0;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t flag = 0;
        plist_get_bool_val(node, &flag);
        return flag != 0;
    }
    case PLIST_UINT:
        plist_get_uint_val(node, &number);
        return qint64(number);
    case PLIST_REAL: {
        double real = 0;
        plist_get_real_val(node, &real);
        return real;
    }
    case PLIST_STRING: {
        const char *text = plist_get_string_ptr(node, &number);
        return QString::fromUtf8(text, qsizetype(number));
    }
    case PLIST_DATA: {
        const char *data = plist_get_data_ptr(node, &number);
        return QByteArray(data, qsizetype(number));
    }
    case PLIST_DATE:
        return toDate(node);
    case PLIST_ARRAY:
        return toList(node, depth);
    case PLIST_DICT:
        return toMap(node, depth);
    default:
        return {};
    }
}

} // namespace

std::optional<QVariantMap> zel::readPropertyList(const QByteArray &bytes)
{
    if (bytes.size() > std::numeric_limits<int32_t>::max() || !isTame(bytes))
        return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_memory(bytes.constData(), uint32_t(bytes.size()), &parsed);
    const List list(parsed, plist_free);
    if (!list || plist_get_node_type(parsed) != PLIST_DICT)
        return std::nullopt;
    return toMap(parsed, 0);
}
