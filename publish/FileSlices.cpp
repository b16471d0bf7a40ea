#include "FileSlices.h"

#include "generate/compactdelta.h"
#include "generate/makedelta.h"
#include "generate/makemovedelta.h"
#include "install/DeltaFile.h"
#include "install/MD5FromData.h"
#include "platform/FileContents.h"
#include "platform/Queues.h"
#include "XZWriter.h"

#include <QFile>
#include <QFileInfo>

#include <limits>
#include <mutex>
#include <new>
#include <utility>

namespace zel {

namespace {

constexpr qint64 DeltaLimit = std::numeric_limits<qint32>::max(); // a suffix array's length is an int
constexpr qint64 TableSize = qint64(90) << 20; // of the tables that speed up generation

class SliceMaker
{
public:
    SliceMaker(const QString &oldBundle, const QString &newBundle, const PlannedFile &file, int format)
        : m_format(format)
        , m_old(oldBundle + u'/' + file.from)
        , m_new(newBundle + u'/' + file.path)
        , m_transport(file.transport)
    {
    }

    qint64 newSize() const { return QFileInfo(m_new).size(); }

    // The memory that `make` takes, in bytes.
    qint64 cost() const
    {
        const bool isDelta = m_transport == Transport::Delta || m_transport == Transport::Smaller;
        // Of format 2 the files are in memory all the while, and masked once more.
        return isDelta ? (m_format > 1 ? 11 : 9) * QFileInfo(m_old).size()
                + (m_format > 1 ? 5 : 3) * newSize() + TableSize
                       : newSize();
    }

    // `progress` hears how many of the new file's bytes are worked off.
    ZELError make(FileSlice &slice, const std::function<void(qint64)> &progress) const
    {
        try {
            return makeAny(slice, progress);
        } catch (const std::bad_alloc &) {
            return ZELError::withMessage(QLatin1String("memory is exhausted by ") + m_new);
        }
    }

private:
    ZELError makeAny(FileSlice &slice, const std::function<void(qint64)> &progress) const
    {
        if (m_transport == Transport::Copy) {
            slice.action = PatchAction::Copy;
            return {};
        }
        if (m_transport == Transport::Whole)
            return makeWhole(slice);
        const bool possible = QFileInfo(m_old).size() < DeltaLimit && newSize() < DeltaLimit;
        // A failure is not worth a larger patch that nobody asked for.
        if (possible && !makeDelta(slice, progress))
            return ZELError::withMessage(QLatin1String("cannot make a delta of ") + m_new);
        if (m_transport == Transport::Smaller) {
            FileSlice whole;
            if (const ZELError error = makeWhole(whole))
                return error;
            if (!possible || estimateXZ(whole.bytes) < estimateXZ(slice.bytes))
                slice = std::move(whole);
        } else if (!possible) {
            return ZELError::withMessage(QLatin1String("cannot make a delta of ") + m_new
                                         + QLatin1String("; an executable cannot travel in another way"));
        }
        return {};
    }

    ZELError makeWhole(FileSlice &slice) const
    {
        std::optional<QByteArray> bytes = readFile(m_new);
        if (!bytes)
            return ZELError::withMessage(QLatin1String("cannot read ") + m_new);
        slice.bytes = std::move(*bytes);
        return {};
    }

    bool makeDelta(FileSlice &slice, const std::function<void(qint64)> &progress) const
    {
        const auto report = [&, size = newSize()](qint64 done, qint64 total) {
            progress(qint64(double(size) * double(done) / double(total)));
        };
        const auto oldBytes = readFile(m_old);
        const auto newBytes = readFile(m_new);
        if (!oldBytes || !newBytes)
            return false;
        auto delta = m_format > 1 ? makeMoveDelta(bytesOf(*oldBytes), bytesOf(*newBytes), hashPage, report)
                                  : zel::makeDelta(QFile::encodeName(m_old).toStdString(),
                                                   QFile::encodeName(m_new).toStdString(), report);
        if (delta && m_format == 1)
            delta = compactDelta(bytesOf(*oldBytes), bytesOf(*newBytes), bytesOf(*delta));
        if (!delta)
            return false;
        slice.action = PatchAction::Patch;
        slice.bytes = QByteArray(reinterpret_cast<const char *>(delta->data()), qsizetype(delta->size()));
        slice.hash = MD5FromData(*newBytes);
        return true;
    }

    static std::span<const unsigned char> bytesOf(const auto &bytes)
    {
        return {reinterpret_cast<const unsigned char *>(bytes.data()), size_t(bytes.size())};
    }

    int m_format; // of the patch
    QString m_old;
    QString m_new;
    Transport m_transport;
};

} // namespace

ZELError makeFileSlices(const QString &oldBundle, const QString &newBundle,
                        const std::vector<PlannedFile> &files, int format, qint64 memory,
                        const std::function<void(const QString &path, qint64 done)> &progress,
                        std::vector<FileSlice> &slices)
{
    std::vector<SliceMaker> makers;
    std::vector<qint64> costs;
    for (const PlannedFile &file : files) {
        makers.emplace_back(oldBundle, newBundle, file, format);
        costs.push_back(makers.back().cost());
    }
    slices.assign(files.size(), {});
    std::mutex mutex;
    ZELError first;
    qint64 done = 0;
    const auto job = [&](size_t i) {
        std::unique_lock lock(mutex);
        if (first)
            return;
        progress(files[i].path, done);
        lock.unlock();
        qint64 ownDone = 0;
        const auto advance = [&](qint64 ownBytes) {
            const std::lock_guard guard(mutex);
            done += ownBytes - std::exchange(ownDone, ownBytes);
            progress(files[i].path, done);
        };
        const ZELError error = makers[i].make(slices[i], advance);
        lock.lock();
        done += makers[i].newSize() - ownDone;
        if (error && !first)
            first = error;
    };
    runJobs(costs, job, memory);
    return first;
}

} // namespace zel
