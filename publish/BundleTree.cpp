#include "BundleTree.h"

#include "platform/BundleInfo.h"

#include <QFile>

#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace zel {

namespace {

// A manifest is JSON: what is not UTF-8 would come out as something else.
bool isUtf8(const fs::path &path)
{
    return QFile::encodeName(QFile::decodeName(path.c_str())) == path.c_str();
}

ZELError readItem(const fs::directory_entry &entry, TreeItem &item)
{
    const QString path = QFile::decodeName(entry.path().c_str());
    if (!isUtf8(entry.path()))
        return ZELError::withMessage(QLatin1String("the name of ") + path + QLatin1String(" is not UTF-8"));
    std::error_code error;
    const fs::file_status status = entry.symlink_status(error);
    if (fs::is_symlink(status)) {
        item.kind = TreeItem::Link;
        const fs::path target = fs::read_symlink(entry.path(), error);
        item.target = QFile::decodeName(target.c_str());
        if (!isUtf8(target))
            return ZELError::withMessage(QLatin1String("the target of ") + path
                                         + QLatin1String(" is not UTF-8"));
    } else if (fs::is_directory(status)) {
        item.kind = TreeItem::Folder;
    } else if (fs::is_regular_file(status)) {
        item.kind = TreeItem::File;
        item.size = qint64(entry.file_size(error));
        item.mode = int(status.permissions()) & 0777;
    } else if (!error) {
        return ZELError::withMessage(path + QLatin1String(" is neither a file, a folder nor a link"));
    }
    return error ? ZELError::fromErrno(QLatin1String("cannot read ") + path, error.value()) : ZELError();
}

bool sameItem(const QString &first, const TreeItem &a, const QString &second, const TreeItem &b)
{
    if (a.kind != b.kind || a.target != b.target)
        return false;
    return a.kind != TreeItem::File || (a.size == b.size && haveSameContent(first, second));
}

const TreeItem *find(const BundleTree &tree, const QString &path)
{
    const auto item = tree.find(path);
    return item == tree.end() ? nullptr : &item->second;
}

bool sameLinkOrFolder(const TreeItem &a, const TreeItem *b)
{
    return b && a.kind == b->kind && a.target == b->target;
}

bool needsRemoval(const TreeItem &item, const TreeItem *after)
{
    return item.kind == TreeItem::File ? !after || after->kind != TreeItem::File
                                       : !sameLinkOrFolder(item, after);
}

PatchCommand command(PatchAction action, const QString &path)
{
    PatchCommand result;
    result.action = action;
    result.path = path;
    return result;
}

QString parentOf(const QString &path)
{
    return path.left(qMax(qsizetype(0), path.lastIndexOf(u'/')));
}

std::vector<PatchCommand> removals(const BundleTree &oldTree, const BundleTree &newTree)
{
    std::vector<PatchCommand> commands;
    std::set<QString> gone; // folders that are removed, at any depth: what they hold needs no command
    for (const auto &[path, item] : oldTree) {
        const bool goesWithItsFolder = gone.contains(parentOf(path));
        if (!goesWithItsFolder && !needsRemoval(item, find(newTree, path)))
            continue;
        if (item.kind == TreeItem::Folder)
            gone.insert(path);
        const bool link = item.kind == TreeItem::Link;
        if (!goesWithItsFolder)
            commands.push_back(command(link ? PatchAction::DeleteSymlink : PatchAction::Delete, path));
    }
    return commands;
}

void planFile(PatchPlan &plan, const QString &path, const TreeItem &item, const TreeItem *before,
              const std::set<QString> &changed, const QString &program)
{
    const bool wasFile = before && before->kind == TreeItem::File;
    if (wasFile && !changed.contains(path))
        return;
    if (!wasFile && item.isExecutable() && path != program)
        plan.lostModes.push_back(path);
    const Transport ofChanged = item.isExecutable() ? Transport::Delta : Transport::Smaller;
    plan.files.push_back({path, wasFile ? ofChanged : Transport::Whole, wasFile ? path : QString()});
}

} // namespace

ZELError readBundleTree(const QString &bundle, BundleTree &tree)
{
    const fs::path root = QFile::encodeName(bundle).toStdString();
    std::error_code error;
    fs::recursive_directory_iterator entries(root, error);
    for (const fs::recursive_directory_iterator end; !error && entries != end; entries.increment(error)) {
        TreeItem item;
        if (const ZELError failed = readItem(*entries, item))
            return failed;
        tree[QFile::decodeName(entries->path().lexically_relative(root).c_str())] = item;
    }
    return error ? ZELError::fromErrno(QLatin1String("cannot read the bundle ") + bundle, error.value())
                 : ZELError();
}

ZELError compareBundles(const QString &first, const QString &second, Modes modes,
                        std::vector<QString> &differences)
{
    BundleTree a;
    BundleTree b;
    if (const ZELError error = readBundleTree(first, a))
        return error;
    if (const ZELError error = readBundleTree(second, b))
        return error;
    // Whoever applies a patch sees to it that the program can be run.
    if (const auto program = b.find(programPath(second)); program != b.end())
        program->second.mode |= 0500 | ((program->second.mode & 0444) >> 2);
    for (const auto &[path, item] : a) {
        const auto other = b.find(path);
        if (other == b.end() || !sameItem(first + u'/' + path, item, second + u'/' + path, other->second)
            || (modes == Modes::Compared && item.mode != other->second.mode))
            differences.push_back(path);
    }
    for (const auto &[path, item] : b) {
        if (!a.contains(path))
            differences.push_back(path);
    }
    return {};
}

bool haveSameContent(const QString &first, const QString &second)
{
    QFile a(first);
    QFile b(second);
    if (!a.open(QIODevice::ReadOnly | QIODevice::Unbuffered)
        || !b.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;
    constexpr qint64 step = 1 << 18;
    for (;;) {
        const QByteArray piece = a.read(step);
        if (piece != b.read(step) || a.error() != QFile::NoError || b.error() != QFile::NoError)
            return false;
        if (piece.isEmpty())
            return true;
    }
}

PatchPlan planPatch(const BundleTree &oldTree, const BundleTree &newTree, const std::set<QString> &changed,
                    const QString &program)
{
    PatchPlan plan;
    plan.removals = removals(oldTree, newTree);
    for (const auto &[path, item] : newTree) {
        const TreeItem *before = find(oldTree, path);
        if (item.kind == TreeItem::File) {
            planFile(plan, path, item, before, changed, program);
        } else if (!sameLinkOrFolder(item, before)) {
            const bool link = item.kind == TreeItem::Link;
            auto &commands = link ? plan.links : plan.folders;
            commands.push_back(command(link ? PatchAction::CreateSymlink : PatchAction::AddDirectory, path));
            commands.back().symlink = item.target;
        }
    }
    return plan;
}

} // namespace zel
