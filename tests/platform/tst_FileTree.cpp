#include "platform/FileContents.h"
#include "platform/FileTree.h"
#include "support/DeepFolder.h"
#include "support/TemporaryTree.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace zel;

namespace {

bool setAttribute(const QString &path)
{
    return ::setxattr(path.toUtf8().constData(), "user.note", "kept", 4, 0) == 0;
}

QByteArray attribute(const QString &path)
{
    char value[16];
    const ssize_t size = ::getxattr(path.toUtf8().constData(), "user.note", value, sizeof value);
    return size < 0 ? QByteArray() : QByteArray(value, size);
}

void setTime(const QString &path, time_t seconds)
{
    const timespec times[] = {{seconds, 5}, {seconds, 7}};
    ::utimensat(AT_FDCWD, path.toUtf8().constData(), times, AT_SYMLINK_NOFOLLOW);
}

/// Lets the process have few descriptors while it stands.
class FewDescriptors
{
public:
    FewDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit few = {64, m_before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before;
};

/// While it stands, the superuser is an ordinary user to whom the tree belongs: modes mean nothing to the
/// superuser.
class OrdinaryUser
{
public:
    explicit OrdinaryUser(const TemporaryTree &tree)
    {
        if (::geteuid() == 0
            && (::chown(tree.path().toUtf8().constData(), nobody, nobody) != 0 || ::seteuid(nobody) != 0))
            qFatal("cannot become an ordinary user");
    }
    ~OrdinaryUser()
    {
        if (::getuid() == 0 && ::seteuid(0) != 0)
            qFatal("cannot become the superuser again");
    }

private:
    static constexpr uid_t nobody = 65534;
};

struct stat statusOf(const QString &path)
{
    struct stat status = {};
    ::lstat(path.toUtf8().constData(), &status);
    return status;
}

} // namespace

class tst_FileTree : public QObject
{
    Q_OBJECT
private slots:
    void copyKeepsWhatItCopies()
    {
        const TemporaryTree tree;
        const QByteArray large(3 << 20, 'x');
        tree.write("a/large", large, 0640);
        tree.write("a/empty", "", 0444);
        tree.write("a/sealed/inner", "inner", 0755);
        tree.write("a/name with \n ü", "named");
        tree.link("a/out", "../outside");
        tree.link("a/loop", ".");
        tree.write("outside/treasure", "treasure");
        const bool attributes = setAttribute(tree.path("a/large"));
        for (const char *item : {"a/large", "a/out", "a/sealed/inner", "a/sealed", "a"})
            setTime(tree.path(item), 1000000000);
        ::chmod(tree.path("a/sealed").toUtf8().constData(), 0555);

        const ZELError error = copyTree(tree.path("a"), tree.path("b"));
        QVERIFY2(!error, qPrintable(error.message));
        QCOMPARE(tree.read("b/large"), large);
        QCOMPARE(tree.read("b/name with \n ü"), QByteArray("named"));
        QCOMPARE(TemporaryTree::linkTarget(tree.path("b/out")), QByteArray("../outside"));
        QCOMPARE(TemporaryTree::linkTarget(tree.path("b/loop")), QByteArray("."));
        for (const char *item : {"", "/large", "/empty", "/out", "/sealed", "/sealed/inner"}) {
            const struct stat from = statusOf(tree.path(QString("a") + item));
            const struct stat to = statusOf(tree.path(QString("b") + item));
            QCOMPARE(to.st_mode, from.st_mode);
            QVERIFY2(to.st_mtim.tv_sec == from.st_mtim.tv_sec && to.st_mtim.tv_nsec == from.st_mtim.tv_nsec,
                     item);
            QVERIFY(to.st_ino != from.st_ino);
        }
        if (attributes)
            QCOMPARE(attribute(tree.path("b/large")), QByteArray("kept"));

        // The copy goes although its folder forbids changes, and what links point at stays as it is.
        ::chmod(tree.path("outside").toUtf8().constData(), 0555);
        QVERIFY(!removeTree(tree.path("b")));
        QVERIFY(!QFileInfo::exists(tree.path("b")));
        QCOMPARE(tree.read("outside/treasure"), QByteArray("treasure"));
        QCOMPARE(TemporaryTree::mode(tree.path("outside")), 0555);
        ::chmod(tree.path("outside").toUtf8().constData(), 0755);
        ::chmod(tree.path("a/sealed").toUtf8().constData(), 0755);
    }

    void hardLinksAreParted()
    {
        const TemporaryTree tree;
        tree.write("a/one", "shared");
        QCOMPARE(::link(tree.path("a/one").toUtf8().constData(), tree.path("a/two").toUtf8().constData()), 0);
        QVERIFY(!copyTree(tree.path("a"), tree.path("b")));
        tree.write("b/one", "written");
        QCOMPARE(tree.read("b/two"), QByteArray("shared"));
        QCOMPARE(tree.read("a/one"), QByteArray("shared"));
    }

    void topLinkIsFollowed()
    {
        const TemporaryTree tree;
        tree.write("real/file", "content");
        tree.link("link", "real");
        QVERIFY(!copyTree(tree.path("link"), tree.path("copy")));
        QVERIFY(!QFileInfo(tree.path("copy")).isSymLink());
        QCOMPARE(tree.read("copy/file"), QByteArray("content"));
    }

    void copyErrors()
    {
        const TemporaryTree tree;
        tree.write("a/file", "x");
        QVERIFY(copyTree(tree.path("none"), tree.path("b")).message.contains("cannot read"));
        QVERIFY(copyTree(tree.path("a"), tree.path("a")).message.contains("cannot make folder"));
        QVERIFY(copyTree(tree.path("a"), tree.path("none/b")));
        tree.write("there", "y");
        QVERIFY(copyTree(tree.path("a/file"), tree.path("there")));
        QCOMPARE(tree.read("there"), QByteArray("y"));
        ::mkfifo(tree.path("a/fifo").toUtf8().constData(), 0644);
        QVERIFY(copyTree(tree.path("a"), tree.path("c")).message.contains("fifo is neither"));
        makeDeepFolder(tree.directory("deep"), 129);
        QVERIFY(copyTree(tree.path("deep"), tree.path("d")).message.contains("too deeply"));
        QVERIFY(!copyTree(tree.path("deep/d"), tree.path("e")));
        const OrdinaryUser user(tree);
        tree.directory("unreadable");
        ::chmod(tree.path("unreadable").toUtf8().constData(), 0300);
        QVERIFY(copyTree(tree.path("unreadable"), tree.path("f")).message.contains("cannot read folder"));
    }

    void removalAtAnyDepth()
    {
        const TemporaryTree tree;
        for (const char *branch : {"top/one", "top/two"}) // with paths longer than the system takes
            makeDeepFolder(tree.directory(branch), 100, QByteArray(50, 'd'));
        const FewDescriptors few;
        QCOMPARE(removeTree(tree.path("top")).message, QString());
        QVERIFY(!QFileInfo::exists(tree.path("top")));
    }

    void removalOfFoldersThatForbidIt()
    {
        const TemporaryTree tree;
        const OrdinaryUser user(tree);
        for (const char *mode : {"000", "111", "444", "555", "666"}) {
            const QString folder = QString("top/") + mode;
            tree.write(folder + "/inner/file", "x");
            ::chmod(tree.path(folder).toUtf8().constData(), QByteArray(mode).toUInt(nullptr, 8));
        }
        ::chmod(tree.path("top").toUtf8().constData(), 0);
        QCOMPARE(removeTree(tree.path("top")).message, QString());
        QVERIFY(!QFileInfo::exists(tree.path("top")));
    }

    void removalNeverFollowsLinks_data()
    {
        QTest::addColumn<QString>("removed");
        for (const char *path : {"link", "link/", "link/.//", "folder"})
            QTest::newRow(path) << path;
    }

    void removalNeverFollowsLinks()
    {
        QFETCH(QString, removed);
        const TemporaryTree tree;
        tree.write("real/file", "content");
        tree.link("link", "real");
        tree.link("folder/link", "../real");
        QVERIFY(!removeTree(tree.path() + u'/' + removed));
        QCOMPARE(tree.read("real/file"), QByteArray("content"));
        QVERIFY(!QFileInfo::exists(tree.path(removed)));
        QVERIFY(!removeTree(tree.path("real/file/none")));
        QVERIFY(!removeTree(tree.path("real") + QChar::Null));
        QCOMPARE(tree.read("real/file"), QByteArray("content"));
    }

    void atomicWriteReplacesTheItem()
    {
        const TemporaryTree tree;
        tree.write("target", "target");
        tree.link("link", "target");
        QVERIFY(!writeFileAtomically(tree.path("link"), "new"));
        QCOMPARE(tree.read("target"), QByteArray("target"));
        QCOMPARE(tree.read("link"), QByteArray("new"));
        const QString longest(255, u'x');
        QVERIFY(!writeFileAtomically(tree.path(longest), "long"));
        QCOMPARE(tree.read(longest), QByteArray("long"));
        tree.directory("folder/inside");
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path("pipe")).constData(), 0600), 0);
        tree.link("to pipe", "pipe");
        for (const char *kept : {"folder", "pipe", "to pipe"})
            QVERIFY(writeFileAtomically(tree.path(kept), "new"));
        QCOMPARE(QDir(tree.path())
                     .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList({"folder", "link", "pipe", "target", "to pipe", longest}));
        QVERIFY(QFileInfo(tree.path("to pipe")).isSymLink());
    }

    void privateFolders()
    {
        const TemporaryTree tree;
        QVERIFY(!makePrivateFolder(tree.path("a/b/c/")));
        QVERIFY(!makePrivateFolder(tree.path("a/b/c")));
        for (const char *folder : {"a", "a/b", "a/b/c"})
            QCOMPARE(TemporaryTree::mode(tree.path(folder)), 0700);
        tree.write("file", "");
        QVERIFY(makePrivateFolder(tree.path("file")));
        QVERIFY(makePrivateFolder(tree.path("file/x")));
    }
};

QTEST_GUILESS_MAIN(tst_FileTree)
#include "tst_FileTree.moc"
