#include "PropertyList.h"

#include "PropertyListGuard.h"

#include <QDateTime>

#include <cstdlib>
#include <limits>
#include <memory>
#include <plist/plist.h>

namespace {

constexpr int MaxDepth = 64;

struct FreeMemory {
    void operator()(void *memory) const { std::free(memory); }
};
struct FreeList {
    void operator()(void *list) const { plist_free(list); }
};
using Memory = std::unique_ptr<void, FreeMemory>;
using List = std::unique_ptr<void, FreeList>;

QVariant toVariant(plist_t node, int depth);

QVariantList toList(plist_t node, int depth)
{
    QVariantList list;
    plist_array_iter start = nullptr;
    plist_array_new_iter(node, &start);
    const Memory iterator(start);
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
    const Memory iterator(start);
    for (;;) {
        char *name = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, start, &name, &item);
        const Memory key(name);
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
    if (bytes.size() > std::numeric_limits<int32_t>::max() || !isTamePropertyList(bytes))
        return std::nullopt;
    plist_t parsed = nullptr;
    plist_from_memory(bytes.constData(), uint32_t(bytes.size()), &parsed);
    const List list(parsed);
    if (!list || plist_get_node_type(parsed) != PLIST_DICT)
        return std::nullopt;
    return toMap(parsed, 0);
}
