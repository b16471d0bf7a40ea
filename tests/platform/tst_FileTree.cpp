#include "platform/FileContents.h"
#include "platform/FileTree.h"
#include "support/Case.h"
#include "support/DeepFolder.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryTree.h"

#include <fcntl.h>
#include <sys/xattr.h>

using namespace zel;

namespace {

// While it stands, the superuser is an ordinary user to whom the tree belongs: modes mean nothing to the
// superuser.
class OrdinaryUser
{
public:
    explicit OrdinaryUser(const TemporaryTree &tree)
    {
        if (::geteuid() == 0
            && (::chown(tree.path().toUtf8().constData(), Nobody, Nobody) != 0 || ::seteuid(Nobody) != 0))
            qFatal("cannot become an ordinary user");
    }
    ~OrdinaryUser()
    {
        if (::getuid() == 0 && ::seteuid(0) != 0)
            qFatal("cannot become the superuser again");
    }

private:
    static constexpr uid_t Nobody = 65534;
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
        tree.write("a/large", QByteArray(3 << 20, 'x'), 0640);
        tree.write("a/empty", "", 0444);
        tree.write("a/sealed/inner", "inner", 0755);
        tree.write("a/name with \n ü", "named");
        tree.link("a/out", "../outside");
        tree.link("a/loop", ".");
        tree.write("outside/treasure", "treasure");
        const bool attributes =
            ::setxattr(tree.path("a/large").toUtf8().constData(), "user.note", "kept", 4, 0) == 0;
        const timespec times[] = {{1'000'000'000, 5}, {1'000'000'000, 7}};
        for (const char *item : {"a/large", "a/out", "a/sealed/inner", "a/sealed", "a"})
            ::utimensat(AT_FDCWD, tree.path(item).toUtf8().constData(), times, AT_SYMLINK_NOFOLLOW);
        ::chmod(tree.path("a/sealed").toUtf8().constData(), 0555);

        const ZELError error = copyTree(tree.path("a"), tree.path("b"));
        QVERIFY2(!error, qPrintable(error.message));
        QCOMPARE(TemporaryTree::listing(tree.path("b")), TemporaryTree::listing(tree.path("a")));
        for (const char *item : {"", "/large", "/empty", "/out", "/sealed", "/sealed/inner"}) {
            const struct stat from = statusOf(tree.path(QString("a") + item));
            const struct stat to = statusOf(tree.path(QString("b") + item));
            QCOMPARE(to.st_mode, from.st_mode);
            QVERIFY2(to.st_mtim.tv_sec == from.st_mtim.tv_sec && to.st_mtim.tv_nsec == from.st_mtim.tv_nsec,
                     item);
            QVERIFY(to.st_ino != from.st_ino);
        }
        char kept[16];
        if (attributes)
            QCOMPARE(::getxattr(tree.path("b/large").toUtf8().constData(), "user.note", kept, sizeof kept),
                     4);

        // The copy goes although its folder forbids changes, and what links point at stays as it is.
        ::chmod(tree.path("outside").toUtf8().constData(), 0555);
        QVERIFY(!removeTree(tree.path("b")));
        QVERIFY(!QFileInfo::exists(tree.path("b")));
        QCOMPARE(tree.read("outside/treasure"), "treasure");
        QCOMPARE(TemporaryTree::mode(tree.path("outside")), 0555);
        ::chmod(tree.path("outside").toUtf8().constData(), 0755);
        ::chmod(tree.path("a/sealed").toUtf8().constData(), 0755);
    }

    void hardLinksAreParted()
    {
        const TemporaryTree tree;
        tree.write("a/one", "shared");
        QCOMPARE(::link(tree.path("a/one").toUtf8().constData(), tree.path("a/two").toUtf8().constData()), 0);
        QVERIFY(!copyTree(tree.link("top", "a"), tree.path("b"))); // a link at the top is followed
        tree.write("b/one", "written");
        QCOMPARE(TemporaryTree::listing(tree.path("b")), QStringList({"one = written", "two = shared"}));
        QVERIFY(!QFileInfo(tree.path("b")).isSymLink());
        QCOMPARE(tree.read("a/one"), "shared");
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
        QCOMPARE(tree.read("there"), "y");
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
        const ResourceLimit few(RLIMIT_NOFILE, 64);
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

    void removalNeverFollowsLinks()
    {
        for (const QString removed : {"link", "link/", "link/.//", "folder"}) {
            const Case current(removed);
            const TemporaryTree tree;
            tree.write("real/file", "content");
            tree.link("link", "real");
            tree.link("folder/link", "../real");
            QVERIFY(!removeTree(tree.path() + u'/' + removed));
            QVERIFY(!QFileInfo::exists(tree.path(removed)));
            QVERIFY(!removeTree(tree.path("real/file/none")));
            QVERIFY(!removeTree(tree.path("real") + QChar::Null));
            QCOMPARE(tree.read("real/file"), "content");
        }
    }

    void atomicWriteReplacesTheItem()
    {
        const TemporaryTree tree;
        tree.write("target", "target");
        tree.link("link", "target");
        QVERIFY(!writeFileAtomically(tree.path("link"), "new"));
        QCOMPARE(tree.read("target"), "target");
        QCOMPARE(tree.read("link"), "new");
        const QString longest(255, u'x');
        QVERIFY(!writeFileAtomically(tree.path(longest), "long"));
        QCOMPARE(tree.read(longest), "long");
        tree.directory("folder/inside");
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path("pipe")).constData(), 0600), 0);
        tree.link("to pipe", "pipe");
        for (const char *kept : {"folder", "pipe", "to pipe"})
            QVERIFY(writeFileAtomically(tree.path(kept), "new"));
        const auto all = QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot;
        QCOMPARE(QDir(tree.path()).entryList(all),
                 QStringList({"folder", "link", "pipe", "target", "to pipe", longest}));
        QVERIFY(QFileInfo(tree.path("to pipe")).isSymLink());
    }
};

QTEST_GUILESS_MAIN(tst_FileTree)
#include "tst_FileTree.moc"
