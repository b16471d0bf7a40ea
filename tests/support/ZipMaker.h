// Zip archives made byte by byte, so that each field can lie.
#pragma once

#include <optional>
#include <QByteArray>
#include <QtEndian>
#include <sys/stat.h>
#include <vector>
#include <zlib.h>

struct ZipItem {
    QByteArray name;
    QByteArray data = {};
    uint32_t mode = S_IFREG | 0644;
    QByteArray extra = {}; ///< extra fields of the directory's record
    uint16_t method = 8;
    uint16_t flags = 0x0800; ///< the name is UTF-8
    uint8_t host = 3; ///< Unix
    uint32_t checksumError = 0; ///< flipped bits
    std::optional<QByteArray> packed = {}; ///< instead of the deflated data
    std::optional<uint32_t> claimedSize = {};
    std::optional<uint32_t> headerOffset = {};
    std::optional<uint32_t> claimedPackedSize = {};
};

class ZipMaker
{
public:
    static QByteArray make(const std::vector<ZipItem> &items, int countError = 0)
    {
        ZipMaker maker;
        for (const ZipItem &item : items)
            maker.add(item);
        const QByteArray count = le16(uint16_t(int(items.size()) + countError));
        return maker.m_data + maker.m_directory + "PK\5\6" + le16(0) + le16(0) + count + count
            + le32(uint32_t(maker.m_directory.size())) + le32(uint32_t(maker.m_data.size())) + le16(0);
    }

    static ZipItem link(const QByteArray &name, const QByteArray &target)
    {
        return {.name = name, .data = target, .mode = S_IFLNK | 0777, .method = 0};
    }

    static ZipItem folder(const QByteArray &name, uint32_t permissions = 0755)
    {
        return {.name = name, .mode = S_IFDIR | permissions, .method = 0};
    }

    /// The extra field that carries a time in seconds.
    static QByteArray timeField(int32_t seconds)
    {
        return QByteArray("UT") + le16(5) + '\1' + le32(uint32_t(seconds));
    }

    static QByteArray extraField(uint16_t id, const QByteArray &data)
    {
        return le16(id) + le16(uint16_t(data.size())) + data;
    }

    static QByteArray le16(uint16_t value) { return number(value); }
    static QByteArray le32(uint32_t value) { return number(value); }
    static QByteArray le64(uint64_t value) { return number(value); }

    // Without what stands around the bare data: a size and zlib's header before it, a checksum behind it.
    static QByteArray deflate(const QByteArray &data)
    {
        return data.isEmpty() ? QByteArray("\3\0", 2) : qCompress(data, 6).sliced(6).chopped(4);
    }

private:
    void add(const ZipItem &item)
    {
        const QByteArray packed = item.packed.value_or(item.method == 8 ? deflate(item.data) : item.data);
        const uLong checksum =
            crc32(0, reinterpret_cast<const Bytef *>(item.data.data()), uInt(item.data.size()));
        const auto offset = item.headerOffset.value_or(uint32_t(m_data.size()));
        // 2024-05-06 07:08:10
        const QByteArray common = le16(item.flags) + le16(item.method) + le16(7 << 11 | 8 << 5 | 5)
            + le16(44 << 9 | 5 << 5 | 6) + le32(uint32_t(checksum) ^ item.checksumError)
            + le32(item.claimedPackedSize.value_or(uint32_t(packed.size())))
            + le32(item.claimedSize.value_or(uint32_t(item.data.size()))) + le16(uint16_t(item.name.size()));
        m_data += "PK\3\4" + le16(20) + common + le16(0) + item.name + packed;
        m_directory += "PK\1\2" + QByteArray(1, 20) + char(item.host) + le16(20) + common
            + le16(uint16_t(item.extra.size())) + le16(0) + le16(0) + le16(0) + le32(item.mode << 16)
            + le32(offset) + item.name + item.extra;
    }

    template <typename T> static QByteArray number(T value)
    {
        QByteArray bytes(sizeof value, Qt::Uninitialized);
        qToLittleEndian(value, bytes.data());
        return bytes;
    }

    QByteArray m_data;
    QByteArray m_directory;
};
