// Here a manifest's path that leaves the bundle is refused: by its text in `isPlainRelativePath`, and by
// where links lead in `goUp` and `PathNames::follow`. The walk opens folder after folder and never hands a
// path of several names to the system, so that a link made by an earlier command of the same patch cannot be
// followed unseen.
//
// The folders of the last walk stay open as a stack, for neighbours in a manifest mostly share their way: a
// patch of 200,000 commands opens each folder about once. `m_depth` says how much of the stack belongs to the
// walk that is going on; what is above is a memory of the last one, dropped when the ways part (`enter`) or
// an item is removed.
#include "BundleWalk.h"

#include "platform/Containment.h"
#include "platform/FileTree.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

bool isPlainRelativePath(const QByteArray &path)
{
    if (path.size() >= PATH_MAX || path.startsWith('/') || path.contains('\0'))
        return false;
    const QByteArrayList names = path.split('/');
    return !names.contains("..");
}

// A slash behind the last name would have the system follow a link there.
QByteArray withoutTrail(QByteArray path)
{
    while (path.endsWith('/') || path.endsWith("/."))
        path.chop(1);
    return path;
}

// The target of a link; nothing for any other item.
std::optional<QByteArray> targetOf(int folder, const QByteArray &name)
{
    char target[PATH_MAX];
    const ssize_t size = ::readlinkat(folder, name.constData(), target, sizeof target);
    return size < 0 ? std::nullopt : std::optional(QByteArray(target, size));
}

} // namespace

// One walk, besides the folders.
struct BundleWalk::Steps {
    PathNames ahead;
    FinalLink finalLink;
    // The names behind the folders: the item's own, and before it those of folders that are missing.
    QByteArrayList rest;
    int error = 0;
};

BundleWalk::BundleWalk(const QString &bundle, qint64 &namesLeft)
    : m_root(::open(QFile::encodeName(bundle).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    , m_namesLeft(namesLeft)
{
}

std::optional<WalkedItem> BundleWalk::find(const QString &path, FinalLink finalLink)
{
    const QByteArray plain = path.size() < PATH_MAX ? withoutTrail(QFile::encodeName(path)) : QByteArray();
    if (!m_root || !isPlainRelativePath(plain))
        return std::nullopt;
    m_depth = 0;
    Steps steps{PathNames(plain, m_namesLeft), finalLink, {}};
    while (const std::optional<QByteArrayView> name = steps.ahead.next()) {
        if (!(*name == ".." ? goUp(steps) : step(steps, name->toByteArray())))
            return std::nullopt;
    }
    return arrive(steps);
}

bool BundleWalk::step(Steps &steps, const QByteArray &name)
{
    const bool last = steps.ahead.atEnd();
    if (steps.rest.isEmpty() && !(last && steps.finalLink == FinalLink::Keep)) {
        if (!last && enter(name))
            return m_depth <= MaxFolderDepth && m_namesLeft >= 0;
        steps.error = last ? 0 : errno;
        --m_namesLeft;
        if (const std::optional<QByteArray> target = targetOf(current(), name))
            return steps.ahead.follow(*target);
    }
    steps.rest.append(name);
    return m_depth + size_t(steps.rest.size()) <= MaxFolderDepth + 1;
}

bool BundleWalk::goUp(Steps &steps)
{
    if (!steps.rest.isEmpty()) {
        steps.rest.removeLast();
        return true;
    }
    return m_depth-- > 0;
}

bool BundleWalk::enter(const QByteArray &name)
{
    if (m_depth == m_folders.size() || m_folders[m_depth].name != name) {
        --m_namesLeft;
        forgetFolders();
        FileDescriptor folder(::openat(current(), name.constData(), RealFolderFlags));
        if (!folder)
            return false;
        m_folders.push_back({name, std::move(folder)});
    }
    ++m_depth;
    return true;
}

std::optional<WalkedItem> BundleWalk::arrive(Steps &steps)
{
    QByteArrayList names;
    for (size_t i = 0; i < m_depth; ++i)
        names.append(m_folders[i].name);
    names.append(steps.rest);
    if (names.isEmpty())
        return std::nullopt;
    if (steps.rest.isEmpty()) { // a link led to a folder, by ".." or "."
        steps.rest.append(names.last());
        --m_depth;
    }
    const QByteArray name = steps.rest.takeLast();
    return WalkedItem{current(), steps.rest, steps.rest.isEmpty() ? 0 : steps.error, name, names.join('/')};
}

bool BundleWalk::makeFolders(WalkedItem &item)
{
    for (; !item.missing.isEmpty(); item.missing.removeFirst()) {
        if (::mkdirat(current(), item.missing.first().constData(), 0777) != 0 || !enter(item.missing.first()))
            return false;
        item.folder = current();
    }
    return true;
}

void BundleWalk::forgetFolders()
{
    m_folders.erase(m_folders.begin() + qptrdiff(m_depth), m_folders.end());
}

} // namespace zel
