#include "EntryReader.h"

#include <algorithm>

namespace zel {

struct EntryReader::Reading {
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
    Reading reading{entry, sink, 0, entry.packedSize};
    if (!m_ready)
        return tooLittleMemory();
    if (Problem problem = findData(m_archive, entry, m_dataEnd, reading.offset))
        return problem;
    if (Problem problem = entry.packed ? inflateAll(reading) : copy(reading))
        return problem;
    if (reading.delivered != entry.size)
        return entryProblem(entry.name, "has less data than it declares");
    if (reading.checksum != entry.checksum)
        return entryProblem(entry.name, "is damaged: its checksum is wrong");
    return {};
}

Problem EntryReader::refill(Reading &reading)
{
    const auto length = size_t(std::min<uint64_t>(reading.left, m_input.size()));
    if (Problem problem = readAt(m_archive, m_input.data(), length, reading.offset))
        return problem;
    reading.offset += length;
    reading.left -= length;
    m_stream.next_in = reinterpret_cast<Bytef *>(m_input.data());
    m_stream.avail_in = uInt(length);
    return {};
}

Problem EntryReader::deliver(Reading &reading, const char *data, size_t length) const
{
    if (length > reading.entry.size - reading.delivered)
        return entryProblem(reading.entry.name, "has more data than it declares");
    reading.delivered += length;
    reading.checksum = uint32_t(crc32(reading.checksum, reinterpret_cast<const Bytef *>(data), uInt(length)));
    return reading.sink(data, length);
}

Problem EntryReader::copy(Reading &reading)
{
    while (reading.left > 0) {
        if (Problem problem = refill(reading))
            return problem;
        if (Problem problem = deliver(reading, m_input.data(), m_stream.avail_in))
            return problem;
    }
    return {};
}

Problem EntryReader::inflateAll(Reading &reading)
{
    inflateReset(&m_stream);
    m_stream.avail_in = 0;
    for (int state = Z_OK; state != Z_STREAM_END;) {
        if (m_stream.avail_in == 0) {
            if (reading.left == 0)
                return entryProblem(reading.entry.name, "is damaged: its data is cut short");
            if (Problem problem = refill(reading))
                return problem;
        }
        m_stream.next_out = reinterpret_cast<Bytef *>(m_output.data());
        m_stream.avail_out = uInt(m_output.size());
        state = inflate(&m_stream, Z_NO_FLUSH);
        if (state != Z_OK && state != Z_STREAM_END)
            return entryProblem(reading.entry.name, "is damaged: its data cannot be unpacked");
        if (Problem problem = deliver(reading, m_output.data(), m_output.size() - m_stream.avail_out))
            return problem;
    }
    if (m_stream.avail_in != 0 || reading.left != 0)
        return entryProblem(reading.entry.name, "is damaged: its data goes on after its end");
    return {};
}

} // namespace zel
