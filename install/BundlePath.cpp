#include "BundlePath.h"

#include <QFile>

#include <filesystem>
#include <list>
#include <system_error>

namespace fs = std::filesystem;

namespace zel {

namespace {

constexpr int LinkLimit = 40; // what the kernel follows before it says ELOOP

bool isPlainRelativePath(const QString &path)
{
    if (path.startsWith(u'/') || path.contains(QChar(u'\0')))
        return false;
    bool named = false;
    for (const QStringView part : QStringView(path).split(u'/', Qt::SkipEmptyParts)) {
        if (part == u"..")
            return false;
        named = named || part != u".";
    }
    return named;
}

// Walks the names one by one. `inside` never holds a link, so that ".." in a link's target is its last name.
class Walk
{
public:
    Walk(const fs::path &root, const fs::path &relative)
        : m_root(root)
    {
        m_names.assign(relative.begin(), relative.end());
    }

    bool run(FinalLink finalLink)
    {
        while (!m_names.empty()) {
            const fs::path name = m_names.front();
            m_names.pop_front();
            if (!enter(name, finalLink == FinalLink::Keep && m_names.empty()))
                return false;
        }
        return true;
    }

    fs::path path() const { return m_root / m_inside; }

private:
    bool enter(const fs::path &name, bool keepLink)
    {
        if (name.empty() || name == ".")
            return true;
        if (name == "..") {
            if (m_inside.empty())
                return false;
            m_inside = m_inside.parent_path();
            return true;
        }
        std::error_code error;
        if (!keepLink && fs::is_symlink(m_root / m_inside / name, error))
            return follow(fs::read_symlink(m_root / m_inside / name, error));
        m_inside /= name;
        return true;
    }

    bool follow(const fs::path &target)
    {
        if (target.empty() || target.is_absolute() || ++m_links > LinkLimit)
            return false;
        m_names.insert(m_names.begin(), target.begin(), target.end());
        return true;
    }

    fs::path m_root;
    fs::path m_inside;
    std::list<fs::path> m_names;
    int m_links = 0;
};

} // namespace

QString pathInBundle(const QString &bundle, const QString &relative, FinalLink finalLink)
{
    if (!isPlainRelativePath(relative))
        return {};
    QString plain = relative; // a trailing slash would hide the last name from the walk
    while (plain.endsWith(u'/') || plain.endsWith(QLatin1String("/.")))
        plain.chop(1);
    Walk walk(QFile::encodeName(bundle).toStdString(), QFile::encodeName(plain).toStdString());
    return walk.run(finalLink) ? QFile::decodeName(walk.path().c_str()) : QString();
}

} // namespace zel
