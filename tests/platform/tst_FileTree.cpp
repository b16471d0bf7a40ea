#include "FileTree.h"
#include "TemporaryTree.h"

#include <fcntl.h>
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
        QVERIFY(!removeTree(tree.path(QStringLiteral("link"))));
        QCOMPARE(tree.read(QStringLiteral("real/file")), QByteArray("content"));
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
        QVERIFY(writeFileAtomically(tree.path(QStringLiteral("folder")), "new"));
        QCOMPARE(QDir(tree.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(),
                 4);
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
