#include "EntryReader.h"

#include "LittleEndian.h"

#include <algorithm>

namespace zel {

struct EntryReader::Progress {
    const ZipEntry &entry;
    const Sink &sink;
    uint64_t offset; // of the packed data not read yet
    uint64_t left; // bytes of packed data not read yet
    uint64_t delivered = 0;
    uint32_t checksum = 0;
};

EntryReader::EntryReader(int archive, uint64_t dataEnd)
    : m_archive(archive)
    , m_dataEnd(dataEnd)
    , m_ready(inflateInit2(&m_stream, -MAX_WBITS) == Z_OK) // negative: without zlib's own header
    , m_input(128 * 1024)
    , m_output(256 * 1024)
{
}

EntryReader::~EntryReader()
{
    inflateEnd(&m_stream);
}

Problem EntryReader::read(const ZipEntry &entry, const Sink &sink)
{
    Progress progress{entry, sink, 0, entry.packedSize};
    if (!m_ready)
        return tooLittleMemory();
    if (Problem problem = findData(entry, progress.offset))
        return problem;
    if (Problem problem = entry.packed ? inflateAll(progress) : copy(progress))
        return problem;
    if (progress.delivered != entry.size)
        return entryProblem(entry.name, "has less data than it declares");
    if (progress.checksum != entry.checksum)
        return entryProblem(entry.name, "is damaged: its checksum is wrong");
    return {};
}

// The header before the data repeats what the directory says; only its own length matters.
Problem EntryReader::findData(const ZipEntry &entry, uint64_t &offset) const
{
    char bytes[30];
    if (Problem problem = readAt(m_archive, bytes, sizeof bytes, entry.headerOffset))
        return problem;
    const std::string_view header(bytes, sizeof bytes);
    offset = entry.headerOffset + sizeof bytes + le16(header, 26) + le16(header, 28);
    if (le32(header, 0) != 0x04034b50 || offset > m_dataEnd || m_dataEnd - offset < entry.packedSize)
        return entryProblem(entry.name, "is damaged: its data is not where the directory says");
    return {};
}

Problem EntryReader::refill(Progress &progress)
{
    const auto length = size_t(std::min<uint64_t>(progress.left, m_input.size()));
    if (Problem problem = readAt(m_archive, m_input.data(), length, progress.offset))
        return problem;
    progress.offset += length;
    progress.left -= length;
    m_stream.next_in = reinterpret_cast<Bytef *>(m_input.data());
    m_stream.avail_in = uInt(length);
    return {};
}

Problem EntryReader::deliver(Progress &progress, const char *data, size_t length) const
{
    if (length > progress.entry.size - progress.delivered)
        return entryProblem(progress.entry.name, "has more data than it declares");
    progress.delivered += length;
    progress.checksum =
        uint32_t(crc32(progress.checksum, reinterpret_cast<const Bytef *>(data), uInt(length)));
    return progress.sink(data, length);
}

Problem EntryReader::copy(Progress &progress)
{
    while (progress.left > 0) {
        if (Problem problem = refill(progress))
            return problem;
        if (Problem problem = deliver(progress, m_input.data(), m_stream.avail_in))
            return problem;
    }
    return {};
}

Problem EntryReader::inflateAll(Progress &progress)
{
    inflateReset(&m_stream);
    m_stream.avail_in = 0;
    for (int state = Z_OK; state != Z_STREAM_END;) {
        if (m_stream.avail_in == 0) {
            if (progress.left == 0)
                return entryProblem(progress.entry.name, "is damaged: its data is cut short");
            if (Problem problem = refill(progress))
                return problem;
        }
        m_stream.next_out = reinterpret_cast<Bytef *>(m_output.data());
        m_stream.avail_out = uInt(m_output.size());
        state = inflate(&m_stream, Z_NO_FLUSH);
        if (state != Z_OK && state != Z_STREAM_END)
            return entryProblem(progress.entry.name, "is damaged: its data cannot be unpacked");
        if (Problem problem = deliver(progress, m_output.data(), m_output.size() - m_stream.avail_out))
            return problem;
    }
    if (m_stream.avail_in != 0 || progress.left != 0)
        return entryProblem(progress.entry.name, "is damaged: its data goes on after its end");
    return {};
}

} // namespace zel
