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
        tree.write(QStringLiteral("a/large"), large, 0640);
        tree.write(QStringLiteral("a/empty"), "", 0444);
        tree.write(QStringLiteral("a/sealed/inner"), "inner", 0755);
        tree.write(QStringLiteral("a/name with \n ü"), "named");
        tree.link(QStringLiteral("a/out"), QStringLiteral("../outside"));
        tree.link(QStringLiteral("a/loop"), QStringLiteral("."));
        tree.write(QStringLiteral("outside/treasure"), "treasure");
        const bool attributes = setAttribute(tree.path(QStringLiteral("a/large")));
        for (const char *item : {"a/large", "a/out", "a/sealed/inner", "a/sealed", "a"})
            setTime(tree.path(QLatin1String(item)), 1000000000);
        ::chmod(tree.path(QStringLiteral("a/sealed")).toUtf8().constData(), 0555);

        const ZELError error = copyTree(tree.path(QStringLiteral("a")), tree.path(QStringLiteral("b")));
        QVERIFY2(!error, qPrintable(error.message));
        QCOMPARE(tree.read(QStringLiteral("b/large")), large);
        QCOMPARE(tree.read(QStringLiteral("b/name with \n ü")), QByteArray("named"));
        QCOMPARE(TemporaryTree::linkTarget(tree.path(QStringLiteral("b/out"))), QByteArray("../outside"));
        QCOMPARE(TemporaryTree::linkTarget(tree.path(QStringLiteral("b/loop"))), QByteArray("."));
        for (const char *item : {"", "/large", "/empty", "/out", "/sealed", "/sealed/inner"}) {
            const struct stat from = statusOf(tree.path(QLatin1Char('a') + QLatin1String(item)));
            const struct stat to = statusOf(tree.path(QLatin1Char('b') + QLatin1String(item)));
            QCOMPARE(to.st_mode, from.st_mode);
            QVERIFY2(to.st_mtim.tv_sec == from.st_mtim.tv_sec && to.st_mtim.tv_nsec == from.st_mtim.tv_nsec,
                     item);
            QVERIFY(to.st_ino != from.st_ino);
        }
        if (attributes)
            QCOMPARE(attribute(tree.path(QStringLiteral("b/large"))), QByteArray("kept"));

        // The copy goes although its folder forbids changes, and what links point at stays as it is.
        ::chmod(tree.path(QStringLiteral("outside")).toUtf8().constData(), 0555);
        QVERIFY(!removeTree(tree.path(QStringLiteral("b"))));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("b"))));
        QCOMPARE(tree.read(QStringLiteral("outside/treasure")), QByteArray("treasure"));
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("outside"))), 0555);
        ::chmod(tree.path(QStringLiteral("outside")).toUtf8().constData(), 0755);
        ::chmod(tree.path(QStringLiteral("a/sealed")).toUtf8().constData(), 0755);
    }

    void hardLinksAreParted()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("a/one"), "shared");
        QCOMPARE(::link(tree.path(QStringLiteral("a/one")).toUtf8().constData(),
                        tree.path(QStringLiteral("a/two")).toUtf8().constData()),
                 0);
        QVERIFY(!copyTree(tree.path(QStringLiteral("a")), tree.path(QStringLiteral("b"))));
        tree.write(QStringLiteral("b/one"), "written");
        QCOMPARE(tree.read(QStringLiteral("b/two")), QByteArray("shared"));
        QCOMPARE(tree.read(QStringLiteral("a/one")), QByteArray("shared"));
    }

    void topLinkIsFollowed()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("real/file"), "content");
        tree.link(QStringLiteral("link"), QStringLiteral("real"));
        QVERIFY(!copyTree(tree.path(QStringLiteral("link")), tree.path(QStringLiteral("copy"))));
        QVERIFY(!QFileInfo(tree.path(QStringLiteral("copy"))).isSymLink());
        QCOMPARE(tree.read(QStringLiteral("copy/file")), QByteArray("content"));
    }

    void copyErrors()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("a/file"), "x");
        QVERIFY(copyTree(tree.path(QStringLiteral("none")), tree.path(QStringLiteral("b")))
                    .message.contains(QLatin1String("cannot read")));
        QVERIFY(copyTree(tree.path(QStringLiteral("a")), tree.path(QStringLiteral("a")))
                    .message.contains(QLatin1String("cannot make folder")));
        QVERIFY(copyTree(tree.path(QStringLiteral("a")), tree.path(QStringLiteral("none/b"))));
        tree.write(QStringLiteral("there"), "y");
        QVERIFY(copyTree(tree.path(QStringLiteral("a/file")), tree.path(QStringLiteral("there"))));
        QCOMPARE(tree.read(QStringLiteral("there")), QByteArray("y"));
        ::mkfifo(tree.path(QStringLiteral("a/fifo")).toUtf8().constData(), 0644);
        QVERIFY(copyTree(tree.path(QStringLiteral("a")), tree.path(QStringLiteral("c")))
                    .message.contains(QLatin1String("fifo is neither")));
        makeDeepFolder(tree.directory(QStringLiteral("deep")), 129);
        QVERIFY(copyTree(tree.path(QStringLiteral("deep")), tree.path(QStringLiteral("d")))
                    .message.contains(QLatin1String("too deeply")));
        QVERIFY(!copyTree(tree.path(QStringLiteral("deep/d")), tree.path(QStringLiteral("e"))));
        const OrdinaryUser user(tree);
        tree.directory(QStringLiteral("unreadable"));
        ::chmod(tree.path(QStringLiteral("unreadable")).toUtf8().constData(), 0300);
        QVERIFY(copyTree(tree.path(QStringLiteral("unreadable")), tree.path(QStringLiteral("f")))
                    .message.contains(QLatin1String("cannot read folder")));
    }

    void removalAtAnyDepth()
    {
        const TemporaryTree tree;
        for (const char *branch : {"top/one", "top/two"}) // with paths longer than the system takes
            makeDeepFolder(tree.directory(QLatin1String(branch)), 100, QByteArray(50, 'd'));
        const FewDescriptors few;
        QCOMPARE(removeTree(tree.path(QStringLiteral("top"))).message, QString());
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("top"))));
    }

    void removalOfFoldersThatForbidIt()
    {
        const TemporaryTree tree;
        const OrdinaryUser user(tree);
        for (const char *mode : {"000", "111", "444", "555", "666"}) {
            const QString folder = QLatin1String("top/") + QLatin1String(mode);
            tree.write(folder + QLatin1String("/inner/file"), "x");
            ::chmod(tree.path(folder).toUtf8().constData(), QByteArray(mode).toUInt(nullptr, 8));
        }
        ::chmod(tree.path(QStringLiteral("top")).toUtf8().constData(), 0);
        QCOMPARE(removeTree(tree.path(QStringLiteral("top"))).message, QString());
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("top"))));
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
        tree.write(QStringLiteral("real/file"), "content");
        tree.link(QStringLiteral("link"), QStringLiteral("real"));
        tree.link(QStringLiteral("folder/link"), QStringLiteral("../real"));
        QVERIFY(!removeTree(tree.path() + u'/' + removed));
        QCOMPARE(tree.read(QStringLiteral("real/file")), QByteArray("content"));
        QVERIFY(!QFileInfo::exists(tree.path(removed)));
        QVERIFY(!removeTree(tree.path(QStringLiteral("real/file/none"))));
        QVERIFY(!removeTree(tree.path(QStringLiteral("real")) + QChar::Null));
        QCOMPARE(tree.read(QStringLiteral("real/file")), QByteArray("content"));
    }

    void atomicWriteReplacesTheItem()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("target"), "target");
        tree.link(QStringLiteral("link"), QStringLiteral("target"));
        QVERIFY(!writeFileAtomically(tree.path(QStringLiteral("link")), "new"));
        QCOMPARE(tree.read(QStringLiteral("target")), QByteArray("target"));
        QCOMPARE(tree.read(QStringLiteral("link")), QByteArray("new"));
        const QString longest(255, u'x');
        QVERIFY(!writeFileAtomically(tree.path(longest), "long"));
        QCOMPARE(tree.read(longest), QByteArray("long"));
        tree.directory(QStringLiteral("folder/inside"));
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path(QStringLiteral("pipe"))).constData(), 0600), 0);
        tree.link(QStringLiteral("to pipe"), QStringLiteral("pipe"));
        for (const char *kept : {"folder", "pipe", "to pipe"})
            QVERIFY(writeFileAtomically(tree.path(QLatin1String(kept)), "new"));
        QCOMPARE(QDir(tree.path())
                     .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList({"folder", "link", "pipe", "target", "to pipe", longest}));
        QVERIFY(QFileInfo(tree.path("to pipe")).isSymLink());
    }

    void privateFolders()
    {
        const TemporaryTree tree;
        QVERIFY(!makePrivateFolder(tree.path(QStringLiteral("a/b/c/"))));
        QVERIFY(!makePrivateFolder(tree.path(QStringLiteral("a/b/c"))));
        for (const char *folder : {"a", "a/b", "a/b/c"})
            QCOMPARE(TemporaryTree::mode(tree.path(QLatin1String(folder))), 0700);
        tree.write(QStringLiteral("file"), "");
        QVERIFY(makePrivateFolder(tree.path(QStringLiteral("file"))));
        QVERIFY(makePrivateFolder(tree.path(QStringLiteral("file/x"))));
    }
};

QTEST_GUILESS_MAIN(tst_FileTree)
#include "tst_FileTree.moc"
