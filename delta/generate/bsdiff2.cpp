#include "bsdiff2.h"

#include "base/StandardFiles.h"
#include "base/Warnings.h"
#include "delta/deltaformat.h"
#include "delta/owned.h"
#include "delta/readfile.h"
#include "makedelta.h"
#include "scan.h"

#include <algorithm>
#include <limits>
#include <new>
#include <sys/stat.h>

// Making a delta takes nine bytes of memory for each old one, and the order of the steps keeps it there: what
// can be refused is refused before anything is read, the old file is sorted before the new one is read, and
// all that only the scan needs goes as soon as it is done. The control block is written while the scan runs;
// the two other blocks must wait for its end, so they are gathered in memory and the header, whose lengths
// are known last, is written twice.
//
// One path serves both entry points: it writes to a stream, which is a file for the one and memory for the
// other. That is why the messages speak of streams. They are part of the behaviour, down to which of them
// gives the system's reason.

namespace zel {
namespace {

using Index = std::int64_t;

constexpr Index LargestFile = std::numeric_limits<int>::max(); // the suffix sort takes the length as an int

struct Contents {
    Bytes bytes;
    Index size = 0;

    std::span<const unsigned char> span() const { return {bytes.get(), static_cast<std::size_t>(size)}; }
};

struct DeltaBlock {
    Bytes bytes;
    Index length = 0;
};

// What the scan works on and what it fills; the blocks have room for the whole new file.
struct Work {
    Contents old;
    Entries I;
    Contents newFile;
    DeltaBlock db;
    DeltaBlock eb;
    DeltaProgress progress = {};
    Index total = 0; // bytes of both files, as known from the start

    void report(Index done) const
    {
        if (progress)
            progress(std::min(done, total), total);
    }
};

// Refuses before anything is allocated what could not be read or sorted.
bool isAcceptable(const char *role, const char *path, Index &total)
{
    struct stat status;
    if (::stat(path, &status) == 0) {
        if (!S_ISDIR(status.st_mode) && status.st_size <= LargestFile) {
            total += status.st_size;
            return true;
        }
        errno = S_ISDIR(status.st_mode) ? EISDIR : EFBIG;
    }
    warn("%s file error: %s", role, path);
    return false;
}

bool readContents(const char *role, const char *path, Contents &contents)
{
    contents.bytes.reset(readfile(path, &contents.size));
    if (contents.bytes && contents.size <= LargestFile)
        return true;
    if (contents.bytes)
        errno = EFBIG;
    warn("%s file error: %s", role, path);
    return false;
}

bool sortOld(Work &work)
{
    const Contents &old = work.old;
    work.I = allocateEntries(old.size + 1);
    if (work.I) {
        work.I[0] = old.size;
        const auto progress = [&](int percent) { work.report(old.size * percent / 100); };
        if (sortSuffixes(old.bytes.get(), work.I.get() + 1, static_cast<int>(old.size), progress) == 0)
            return true;
        errno = ENOMEM; // nothing else fails there
    }
    warn("Failed to allocate memory for I or V");
    return false;
}

bool prepare(const char *oldPath, const char *newPath, Work &work)
{
    if (!isAcceptable("old", oldPath, work.total) || !isAcceptable("new", newPath, work.total))
        return false;
    if (!readContents("old", oldPath, work.old) || !sortOld(work)
        || !readContents("new", newPath, work.newFile))
        return false;
    work.db.bytes = allocateBytes(work.newFile.size);
    work.eb.bytes = allocateBytes(work.newFile.size);
    if (!work.db.bytes || !work.eb.bytes) {
        warn("Failed to allocate memory for db or eb");
        return false;
    }
    return true;
}

void appendDifference(DeltaBlock &db, const Work &work, const ScanStep &step)
{
    const unsigned char *const newBytes = work.newFile.bytes.get() + step.newStart;
    const unsigned char *const oldBytes = work.old.bytes.get() + step.oldStart;
    unsigned char *const to = db.bytes.get() + db.length;
    for (Index i = 0; i < step.add; ++i)
        to[i] = static_cast<unsigned char>(newBytes[i] - oldBytes[i]);
    db.length += step.add;
}

void appendExtra(DeltaBlock &eb, const Work &work, const ScanStep &step)
{
    std::copy_n(work.newFile.bytes.get() + step.newStart + step.add, step.insert, eb.bytes.get() + eb.length);
    eb.length += step.insert;
}

// Writes a delta to a stream: the header with its lengths open, the control block while the scan runs, the
// other blocks.
class DeltaWriter
{
public:
    using Header = std::array<unsigned char, DeltaHeaderSize>;

    // `patchPath` is null when the stream is no file; both outlive the writer.
    DeltaWriter(std::FILE *sink, const char *patchPath, Index newSize)
        : m_sink(sink)
        , m_patchPath(patchPath)
    {
        std::copy(DeltaMagic.begin(), DeltaMagic.end(), m_header.begin());
        setField(NewSizeOffset, newSize);
    }

    const Header &header() const { return m_header; }

    bool writeHeader() const
    {
        if (std::fwrite(m_header.data(), 1, m_header.size(), m_sink) == m_header.size())
            return true;
        if (m_patchPath)
            warn("fwrite(%s)", m_patchPath);
        else
            warn("fwrite");
        return false;
    }

    bool writeSteps(Work &work) const
    {
        Scan scan(work.old.span(), work.I.get(), work.newFile.span(), {},
                  [&](Index scanned) { work.report(work.old.size + scanned); });
        while (const std::optional<ScanStep> step = scan.next()) {
            appendDifference(work.db, work, *step);
            appendExtra(work.eb, work, *step);
            if (!writeTriple(*step))
                return false;
        }
        return true;
    }

    // Releases each block once it is written.
    bool writeBlocks(DeltaBlock &db, DeltaBlock &eb)
    {
        Index controlEnd;
        Index diffEnd;
        if (!takePosition(controlEnd) || !writeBlock(db) || !takePosition(diffEnd) || !writeBlock(eb)
            || !flush())
            return false;
        setField(ControlLengthOffset, controlEnd - static_cast<Index>(DeltaHeaderSize));
        setField(DiffLengthOffset, diffEnd - controlEnd);
        return true;
    }

    bool rewriteHeader() const
    {
        if (!seekTo(m_sink, 0)) {
            warn("fseeko");
            return false;
        }
        return writeHeader() && flush();
    }

private:
    void setField(std::size_t offset, Index value)
    {
        std::ranges::copy(encodeDeltaInteger(value), m_header.begin() + static_cast<std::ptrdiff_t>(offset));
    }

    // Only the first value's failure goes without the system's reason: deliberate, readers of the output
    // tell it by that.
    bool writeTriple(const ScanStep &step) const
    {
        if (!writeValue(step.add)) {
            warnx("fwrite");
            return false;
        }
        if (!writeValue(step.insert) || !writeValue(step.seek)) {
            warn("fwrite");
            return false;
        }
        return true;
    }

    bool writeValue(Index value) const
    {
        const auto bytes = encodeDeltaInteger(value);
        return std::fwrite(bytes.data(), 1, bytes.size(), m_sink) == bytes.size() && std::fflush(m_sink) == 0;
    }

    bool writeBlock(DeltaBlock &block) const
    {
        const auto length = static_cast<std::size_t>(block.length);
        if (std::fwrite(block.bytes.get(), 1, length, m_sink) < length) {
            warn("fwrite");
            return false;
        }
        block.bytes.reset();
        return true;
    }

    bool takePosition(Index &position) const
    {
        position = positionOf(m_sink);
        if (position == -1)
            warn("ftello");
        return position != -1;
    }

    bool flush() const
    {
        if (std::fflush(m_sink) == 0)
            return true;
        warn("fwrite");
        return false;
    }

    std::FILE *m_sink;
    const char *m_patchPath;
    Header m_header = {};
};

// Writes everything but the final header. The suffixes and the old file are released as soon as the scan is
// done.
bool writeDelta(DeltaWriter &writer, Work &work)
{
    if (!writer.writeHeader() || !writer.writeSteps(work))
        return false;
    work.I.reset();
    work.old.bytes.reset();
    work.newFile.bytes.reset();
    return writer.writeBlocks(work.db, work.eb);
}

bool closeSink(File &sink)
{
    if (std::fclose(sink.release()) == 0)
        return true;
    warn("fclose");
    return false;
}

std::optional<std::vector<std::byte>> copyDelta(MemoryStream &sink, const DeltaWriter::Header &header)
{
    const std::span<const std::byte> bytes = sink.bytes();
    if (bytes.size() < header.size()) {
        warn("fwrite");
        return std::nullopt;
    }
    try {
        std::vector<std::byte> delta(bytes.begin(), bytes.end());
        std::ranges::copy(std::as_bytes(std::span(header)), delta.begin());
        return delta;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        warn("fwrite");
        return std::nullopt;
    }
}

} // namespace

std::optional<std::vector<std::byte>> makeDelta(const std::filesystem::path &oldPath,
                                                const std::filesystem::path &newPath,
                                                const DeltaProgress &progress)
{
    Work work;
    work.progress = progress;
    const auto &oldName = systemName(oldPath);
    const auto &newName = systemName(newPath);
    if (!prepare(oldName.c_str(), newName.c_str(), work))
        return std::nullopt;
    MemoryStream sink;
    if (!sink.file()) {
        warn("open_memstream");
        return std::nullopt;
    }
    DeltaWriter writer(sink.file(), nullptr, work.newFile.size);
    if (!writeDelta(writer, work))
        return std::nullopt;
    // The final header goes into the copy: a rewound memory stream would be cut off behind it when it is
    // closed.
    return copyDelta(sink, writer.header());
}

} // namespace zel

std::optional<std::vector<std::byte>> bsdiff2(const std::filesystem::path &oldPath,
                                              const std::filesystem::path &newPath)
{
    return zel::makeDelta(oldPath, newPath, {});
}

int bsdiff(int argc, char *argv[])
{
    using namespace zel;
    if (argc != 4) {
        warnx("usage: %s oldfile newfile patchfile\n", argc > 0 ? argv[0] : "bsdiff");
        return -1;
    }
    const char *const patchPath = argv[3];
    Work work;
    if (!prepare(argv[1], argv[2], work))
        return -1;
    File sink(openToWrite(patchPath));
    if (!sink) {
        warn("%s", patchPath);
        return -1;
    }
    DeltaWriter writer(sink.get(), patchPath, work.newFile.size);
    return writeDelta(writer, work) && writer.rewriteHeader() && closeSink(sink) ? 0 : -1;
}
