// Names say little: builds give files names made of their content, so that a file which hardly changed has
// another one. What a file is built from is therefore found by content, first by SHA-256 among the old files
// of the same size, then by what it shares with them (SimilarFiles.h). Whether a delta of that file is
// smaller than the file itself is found later, by making it.
//
// New files of equal content are built alike, so that the payload holds their slice once.
#include "MovedFiles.h"

#include "install/SHA256.h"
#include "platform/FileContents.h"
#include "platform/Queues.h"
#include "SimilarFiles.h"

#include <QHash>

#include <algorithm>
#include <mutex>

namespace zel {

namespace {

// A file that is much larger than what is made of it costs more to read than it saves.
constexpr qint64 SmallOldFile = qint64(1) << 20;
constexpr qint64 MostTimesLarger = 16;

class MovedFiles
{
public:
    MovedFiles(const QString &oldBundle, const BundleTree &oldTree, const QString &newBundle, PatchPlan &plan)
        : m_oldBundle(oldBundle)
        , m_newBundle(newBundle)
        , m_oldTree(oldTree)
        , m_plan(plan)
    {
        qint64 size = 0;
        for (const auto &[path, item] : oldTree)
            size += item.kind == TreeItem::File ? item.size : 0;
        m_readable = PatchFile::changeLimit(size, 0) - size;
    }

    ZELError plan()
    {
        if (m_plan.files.empty())
            return {};
        if (const ZELError error = readNewFiles())
            return error;
        if (const ZELError error = readOldFiles())
            return error;
        const SimilarFiles similar(std::move(m_oldFiles));
        QHash<QString, size_t> first; // by SHA-256
        for (size_t i = 0; i < m_plan.files.size(); ++i) {
            PlannedFile &file = m_plan.files[i];
            const auto equal = first.constFind(file.sha256);
            if (equal != first.constEnd())
                buildLike(m_plan.files[*equal], file);
            else
                choose(similar, m_newFiles[i], file);
            first.insert(file.sha256, i);
        }
        return {};
    }

private:
    // Runs on all processors; the first error ends it.
    ZELError readAll(const QString &bundle, const std::vector<QString> &paths,
                     const std::function<void(size_t, const QByteArray &)> &use) const
    {
        std::mutex mutex;
        ZELError first;
        const std::vector<qint64> costs(paths.size(), 1);
        runJobs(costs, [&](size_t i) {
            const QString path = bundle + u'/' + paths[i];
            ZELError error;
            try {
                const std::optional<QByteArray> content = readFile(path);
                if (content)
                    use(i, *content);
                else
                    error = ZELError::withMessage(QLatin1String("cannot read ") + path);
            } catch (const std::bad_alloc &) {
                error = ZELError::withMessage(QLatin1String("memory is exhausted by ") + path);
            }
            const std::lock_guard lock(mutex);
            if (error && !first)
                first = error;
        });
        return first;
    }

    ZELError readNewFiles()
    {
        std::vector<QString> paths;
        for (const PlannedFile &file : m_plan.files)
            paths.push_back(file.path);
        m_newFiles.resize(paths.size());
        return readAll(m_newBundle, paths, [&](size_t i, const QByteArray &content) {
            m_newFiles[i] = {paths[i], content.size(), FileSketch::of(content)};
            m_plan.files[i].sha256 = sha256Of(content);
        });
    }

    ZELError readOldFiles()
    {
        std::set<qint64> sizes;
        for (const SketchedFile &file : m_newFiles)
            sizes.insert(file.size);
        std::vector<QString> paths;
        for (const auto &[path, item] : m_oldTree) {
            if (item.kind == TreeItem::File)
                paths.push_back(path);
        }
        m_oldFiles.resize(paths.size());
        std::vector<QString> hashes(paths.size());
        const ZELError error = readAll(m_oldBundle, paths, [&](size_t i, const QByteArray &content) {
            m_oldFiles[i] = {paths[i], content.size(), FileSketch::of(content)};
            if (sizes.contains(content.size()))
                hashes[i] = sha256Of(content);
        });
        for (size_t i = 0; i < paths.size(); ++i) {
            if (!hashes[i].isNull() && !m_known.contains(hashes[i]))
                m_known.insert(hashes[i], paths[i]);
        }
        return error;
    }

    void choose(const SimilarFiles &similar, const SketchedFile &wanted, PlannedFile &file)
    {
        const QString same = m_known.value(file.sha256);
        if (!same.isNull() && mayRead(same, file.path)) {
            file.transport = Transport::Copy;
            file.from = same;
            return;
        }
        const bool staysInPlace = file.transport != Transport::Whole;
        file.transport = Transport::Whole;
        const QString base = similar.mostLike(wanted).value_or(staysInPlace ? file.path : QString());
        for (const QString &from : {base, staysInPlace ? file.path : QString()}) {
            if (from.isNull() || !isWorthReading(from, wanted) || !mayRead(from, file.path))
                continue;
            file.transport = Transport::Smaller;
            file.from = from;
            return;
        }
    }

    void buildLike(const PlannedFile &first, PlannedFile &file)
    {
        const bool may = first.transport == Transport::Whole || mayRead(first.from, file.path);
        file.transport = may ? first.transport : Transport::Whole;
        file.from = may ? first.from : QString();
    }

    bool isWorthReading(const QString &from, const SketchedFile &wanted) const
    {
        const qint64 size = m_oldTree.at(from).size;
        return from == wanted.path || size <= SmallOldFile || size <= MostTimesLarger * wanted.size;
    }

    // Files at their own places are read once each, which is set aside; the rest is for all others.
    bool mayRead(const QString &from, const QString &path)
    {
        const qint64 size = from == path ? 0 : m_oldTree.at(from).size;
        if (size > m_readable)
            return false;
        m_readable -= size;
        return true;
    }

    const QString &m_oldBundle;
    const QString &m_newBundle;
    const BundleTree &m_oldTree;
    PatchPlan &m_plan;
    std::vector<SketchedFile> m_newFiles; // as in the plan
    std::vector<SketchedFile> m_oldFiles;
    QHash<QString, QString> m_known; // old paths by the SHA-256 of those that may be equal to a new one
    qint64 m_readable = 0;
};

} // namespace

ZELError planMovedFiles(const QString &oldBundle, const BundleTree &oldTree, const QString &newBundle,
                        const BundleTree &newTree, PatchPlan &plan)
{
    if (const ZELError error = MovedFiles(oldBundle, oldTree, newBundle, plan).plan())
        return error;
    std::set<QString> built;
    for (PlannedFile &file : plan.files) {
        file.mode = newTree.at(file.path).mode;
        built.insert(file.path);
    }
    for (const auto &[path, item] : newTree) {
        const auto before = oldTree.find(path);
        if (item.kind != TreeItem::File || built.contains(path) || before->second.mode == item.mode)
            continue;
        PatchCommand command;
        command.action = PatchAction::Mode;
        command.path = path;
        command.mode = item.mode;
        plan.modes.push_back(command);
    }
    return {};
}

} // namespace zel
