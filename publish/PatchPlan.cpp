#include "PatchPlan.h"

namespace zel {

namespace {

const BundleItem *find(const BundleTree &tree, const QString &path)
{
    const auto item = tree.find(path);
    return item == tree.end() ? nullptr : &item->second;
}

bool sameLinkOrFolder(const BundleItem &a, const BundleItem *b)
{
    return b && a.kind == b->kind && a.target == b->target;
}

bool needsRemoval(const BundleItem &item, const BundleItem *after)
{
    return item.kind == BundleItem::File ? !after || after->kind != BundleItem::File
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
        if (item.kind == BundleItem::Folder)
            gone.insert(path);
        const bool link = item.kind == BundleItem::Link;
        if (!goesWithItsFolder)
            commands.push_back(command(link ? PatchAction::DeleteSymlink : PatchAction::Delete, path));
    }
    return commands;
}

void planFile(PatchPlan &plan, const QString &path, const BundleItem &item, const BundleItem *before,
              const std::set<QString> &changed, const QString &program)
{
    const bool wasFile = before && before->kind == BundleItem::File;
    if (wasFile && !changed.contains(path))
        return;
    if (!wasFile && item.executable && path != program)
        plan.lostModes.push_back(path);
    const Transport ofChanged = item.executable ? Transport::Delta : Transport::Smaller;
    plan.files.push_back({path, wasFile ? ofChanged : Transport::Whole});
}

} // namespace

PatchPlan planPatch(const BundleTree &oldTree, const BundleTree &newTree, const std::set<QString> &changed,
                    const QString &program)
{
    PatchPlan plan;
    plan.removals = removals(oldTree, newTree);
    for (const auto &[path, item] : newTree) {
        const BundleItem *before = find(oldTree, path);
        if (item.kind == BundleItem::File) {
            planFile(plan, path, item, before, changed, program);
        } else if (!sameLinkOrFolder(item, before)) {
            const bool link = item.kind == BundleItem::Link;
            auto &commands = link ? plan.links : plan.folders;
            commands.push_back(command(link ? PatchAction::CreateSymlink : PatchAction::AddDirectory, path));
            commands.back().symlink = item.target;
        }
    }
    return plan;
}

} // namespace zel
