#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "publish/PatchMaker.h"
#include "support/TemporaryTree.h"

#include <QRandomGenerator>
#include <QRegularExpression>

using namespace zel;

namespace {

// A tree in words: "path" of a file with its content after "=", a folder's path ends in "/", a link's target
// after "->", an executable's path starts with "*".
void makeTree(const TemporaryTree &tree, const QString &root, const QStringList &items)
{
    tree.directory(root);
    for (QString item : items) {
        const bool executable = item.startsWith(u'*');
        if (executable)
            item.remove(0, 1);
        const qsizetype link = item.indexOf(QLatin1String("->"));
        const qsizetype file = item.indexOf(u'=');
        if (link >= 0)
            tree.link(root + u'/' + item.left(link), item.mid(link + 2));
        else if (file >= 0)
            tree.write(root + u'/' + item.left(file), item.mid(file + 1).toUtf8(), executable ? 0755 : 0644);
        else
            tree.directory(root + u'/' + item);
    }
}

QStringList listing(const QString &root)
{
    QStringList items;
    QDirIterator entries(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        const QString name = QDir(root).relativeFilePath(path);
        if (entries.fileInfo().isSymLink())
            items.append(name + QLatin1String("->") + QString::fromUtf8(TemporaryTree::linkTarget(path)));
        else if (entries.fileInfo().isDir())
            items.append(name + u'/');
        else
            items.append(name + u'=' + QString::fromUtf8(TemporaryTree::contents(path)));
    }
    items.sort();
    return items;
}

QString words(const QByteArray &text, int count)
{
    return QString::fromUtf8(text.repeated(count));
}

} // namespace

class tst_PatchMaker : public QObject
{
    Q_OBJECT
private slots:
    void changes_data()
    {
        QTest::addColumn<QStringList>("before");
        QTest::addColumn<QStringList>("after");
        QTest::addColumn<QStringList>("commands"); // action and path, in order

        const auto row = [](const char *name, const QStringList &before, const QStringList &after,
                            const QStringList &commands) {
            QTest::newRow(name) << before << after << commands;
        };
        const auto list = [](std::initializer_list<const char *> items) {
            QStringList result;
            for (const char *item : items)
                result.append(QString::fromUtf8(item));
            return result;
        };
        row("nothing", list({"a=1", "d/", "l->a"}), list({"a=1", "d/", "l->a"}), {});
        row("file becomes folder", list({"x=1"}), list({"x/y=1"}),
            list({"delete x", "adddirectory x", "add x/y"}));
        row("folder becomes file", list({"x/y/z=1", "x/l->y"}), list({"x=1"}), list({"delete x", "add x"}));
        row("link becomes file", list({"x->y", "y=1"}), list({"x=2", "y=1"}),
            list({"delete-symlink x", "add x"}));
        row("file becomes link", list({"x=1", "y=1"}), list({"x->y", "y=1"}),
            list({"delete x", "create-symlink x"}));
        row("link becomes folder", list({"x->y", "y/a=1"}), list({"x/b=2", "y/a=1"}),
            list({"delete-symlink x", "adddirectory x", "add x/b"}));
        row("folder becomes link", list({"x/a=1", "y/a=1"}), list({"x->y", "y/a=1"}),
            list({"delete x", "create-symlink x"}));
        row("link gets another target", list({"l->a", "a=1"}), list({"l->b", "a=1"}),
            list({"delete-symlink l", "create-symlink l"}));
        row("empty folders come and go", list({"old/"}), list({"new/deep/"}),
            list({"delete old", "adddirectory new", "adddirectory new/deep"}));
        row("names around a removed folder", list({"a/b=1", "a/l->b", "a-b/c=1", "a.b=1"}), {},
            list({"delete a", "delete a-b", "delete a.b"}));
        row("nested additions", {}, list({"a/b/c/d=1", "a/b/l->c"}),
            list({"adddirectory a", "adddirectory a/b", "adddirectory a/b/c", "add a/b/c/d",
                  "create-symlink a/b/l"}));
        row("awkward names", list({"it's $HOME & \"x\"\n=1"}), list({"Größe (2);`x`=1"}),
            list({"delete it's $HOME & \"x\"\n", "add Größe (2);`x`"}));
        row("dangling and outward links", {}, list({"l->../../x", "m->/dev/null"}),
            list({"create-symlink l", "create-symlink m"}));
        row("to and from empty", list({"a=", "b=1"}), list({"a=1", "b="}), list({"add a", "add b"}));
        const QString text = words("line of a text that does not change ", 500);
        row("delta where smaller", {QLatin1String("a=") + text}, {QLatin1String("a=") + text + u'!'},
            list({"patch a"}));
        row("whole where smaller", list({"a=something wholly different"}), list({"a=zzz"}), list({"add a"}));
        row("an executable is always a delta", list({"*a=something wholly different"}), list({"*a=zzz"}),
            list({"patch a"}));
        row("a file that becomes executable is, too", list({"a=1"}), list({"*a=2"}), list({"patch a"}));
        const QString info = "Contents/Info.plist=<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
                             "<string>b</string></dict></plist>";
        row("the bundle's program may be new", {info, "*Contents/MacOS/a=1"}, {info, "*Contents/MacOS/b=1"},
            list({"delete Contents/MacOS/a", "add Contents/MacOS/b"}));
        row("an executable that stays needs nothing", list({"a=1"}), list({"*a=1"}), {});
    }

    void changes()
    {
        QFETCH(QStringList, before);
        QFETCH(QStringList, after);
        QFETCH(QStringList, commands);
        const TemporaryTree tree;
        makeTree(tree, QStringLiteral("old.app"), before);
        makeTree(tree, QStringLiteral("new.app"), after);
        const QString oldBundle = tree.path(QStringLiteral("old.app"));
        const QString newBundle = tree.path(QStringLiteral("new.app"));
        const QString patch = tree.path(QStringLiteral("patch"));

        PatchSummary summary;
        const ZELError error = makePatch(oldBundle, newBundle, patch, {}, summary);
        QVERIFY2(!error, qPrintable(error.message));
        PatchFile file;
        QVERIFY(!PatchFile::read(patch, {}, file));
        QStringList made;
        for (const PatchCommand &command : file.commands)
            made.append(wordOf(command.action) + u' ' + command.path);
        QCOMPARE(made, commands);

        PatchMakerOptions sparing;
        sparing.memory = 1;
        const QString samePatch = tree.path("same patch");
        QVERIFY(!makePatch(oldBundle, newBundle, samePatch, sparing, summary));
        QCOMPARE(TemporaryTree::contents(samePatch), TemporaryTree::contents(patch));

        QVariantList log;
        const QString built = tree.path(QStringLiteral("built.app"));
        QVERIFY(ZELUpdaterApplyPatch(oldBundle, built, patch, log));
        QCOMPARE(listing(built), listing(newBundle));
        for (const QString &item : after) {
            if (item.startsWith(u'*'))
                QCOMPARE(TemporaryTree::mode(built + u'/' + item.mid(1).section(u'=', 0, 0)), 0755);
        }
        QCOMPARE(QDir(tree.path()).entryList(QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot).size(), 3);
    }

    void deltasAreCompacted()
    {
        const TemporaryTree tree;
        const QString shared = QStringLiteral("too short to pay"); // but long enough for the scan
        const QString fresh = words("12345", 9) + shared + words("67890", 9);
        makeTree(tree, "old.app", {QStringLiteral("*a=") + shared});
        makeTree(tree, "new.app", {QStringLiteral("*a=") + fresh});
        PatchSummary summary;
        QVERIFY(!makePatch(tree.path("old.app"), tree.path("new.app"), tree.path("patch"), {}, summary));
        PatchFile file;
        QVERIFY(!PatchFile::read(tree.path("patch"), {}, file));
        QCOMPARE(file.payload.size(), 32 + 24 + fresh.size()); // header, one triple, new bytes
    }

    // A large file's share of the work shows while its old one is sorted and while it is searched.
    void progressMovesWithinAFile()
    {
        const TemporaryTree tree;
        QRandomGenerator random(1);
        for (const char *place : {"old.app/a", "new.app/a"}) {
            QByteArray noise(1 << 18, Qt::Uninitialized);
            random.fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
            tree.write(place, noise);
        }
        QList<qint64> shares;
        PatchMakerOptions options;
        options.progress = [&](const QString &step, qint64 done, qint64 total) {
            if (step == "a")
                shares.append(100 * done / total);
        };
        PatchSummary summary;
        QVERIFY(!makePatch(tree.path("old.app"), tree.path("new.app"), tree.path("patch"), options, summary));
        QVERIFY(std::is_sorted(shares.begin(), shares.end()));
        const auto half = std::lower_bound(shares.begin(), shares.end(), 50);
        QVERIFY2(half - shares.begin() > 4 && shares.end() - half > 30,
                 qPrintable(QString::number(shares.size())));
        QVERIFY(shares.first() == 0 && shares.last() > 90 && shares.last() < 100);
    }

    // Files of n * 32768 bytes have no hash. Sizes go in steps of four: around the first of those, none is
    // left out.
    void sizesWithoutAHashAreAvoided()
    {
        const TemporaryTree tree;
        makeTree(tree, "old.app", {});
        QByteArray noise(32768, '\0');
        QRandomGenerator random(1);
        std::generate(noise.begin(), noise.end(), [&random] { return char(random.bounded(256)); });
        QList<qint64> sizes;
        for (qsizetype taken = 32530; sizes.isEmpty() || sizes.last() <= 32768; ++taken) {
            tree.write("new.app/noise", noise.first(taken));
            PatchSummary summary;
            QVERIFY(!makePatch(tree.path("old.app"), tree.path("new.app"), tree.path("patch"), {}, summary));
            sizes.append(summary.size);
        }
        QVERIFY(sizes.first() < 32764);
        QVERIFY(sizes.contains(32764));
        QVERIFY(!sizes.contains(32768));
    }

    void lostModes()
    {
        const TemporaryTree tree;
        makeTree(tree, QStringLiteral("old.app"), {QStringLiteral("link->x")});
        makeTree(tree, QStringLiteral("new.app"), {QStringLiteral("*link=1"), QStringLiteral("*tool=1")});
        const QString patch = tree.path(QStringLiteral("patch"));
        PatchSummary summary;
        PatchMakerOptions options;
        const auto make = [&] {
            summary = {};
            return makePatch(tree.path(QStringLiteral("old.app")), tree.path(QStringLiteral("new.app")),
                             patch, options, summary);
        };
        const ZELError error = make();
        QVERIFY(error.message.contains(QLatin1String("link, tool")));
        QVERIFY(error.message.contains(QLatin1String("--allow-lost-modes")));
        QVERIFY(!QFileInfo::exists(patch));
        options.allowLostModes = true;
        QVERIFY(!make());
        QCOMPARE(summary.lostModes, (QStringList{QStringLiteral("link"), QStringLiteral("tool")}));
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("reason");
        QTest::newRow("fifo") << QStringLiteral("neither a file");
        QTest::newRow("name") << QStringLiteral("name of .*not UTF-8");
        QTest::newRow("target") << QStringLiteral("target of .*not UTF-8");
        QTest::newRow("gone") << QStringLiteral("cannot read the bundle");
    }

    // What was at the patch's place stays there.
    void refusals()
    {
        QFETCH(QString, reason);
        const TemporaryTree tree;
        makeTree(tree, QStringLiteral("old.app"), {QStringLiteral("a=1")});
        makeTree(tree, QStringLiteral("new.app"), {QStringLiteral("a=1")});
        const QByteArray bundle = tree.path(QStringLiteral("new.app")).toUtf8();
        if (qstrcmp(QTest::currentDataTag(), "fifo") == 0)
            QCOMPARE(::mkfifo((bundle + "/fifo").constData(), 0644), 0);
        else if (qstrcmp(QTest::currentDataTag(), "name") == 0)
            QCOMPARE(::symlink("x", (bundle + "/\xff\xfe").constData()), 0);
        else if (qstrcmp(QTest::currentDataTag(), "target") == 0)
            QCOMPARE(::symlink("\xff\xfe", (bundle + "/x").constData()), 0);
        else
            QDir(QString::fromUtf8(bundle)).removeRecursively();
        const QString patch = tree.write(QStringLiteral("patch"), "an earlier patch");
        PatchSummary summary;
        const ZELError error =
            makePatch(tree.path(QStringLiteral("old.app")), QString::fromUtf8(bundle), patch, {}, summary);
        QVERIFY2(error.message.contains(QRegularExpression(reason)), qPrintable(error.message));
        QCOMPARE(tree.read(QStringLiteral("patch")), QByteArray("an earlier patch"));
    }

    void patchInsideABundleIsRefused()
    {
        const TemporaryTree tree;
        makeTree(tree, QStringLiteral("old.app"), {QStringLiteral("a=1")});
        makeTree(tree, QStringLiteral("new.app"), {QStringLiteral("a=1")});
        tree.link(QStringLiteral("link"), QStringLiteral("new.app"));
        for (const char *place : {"old.app/patch", "new.app/none/patch", "link/patch", "new.app"}) {
            PatchSummary summary;
            const ZELError error =
                makePatch(tree.path(QStringLiteral("old.app")), tree.path(QStringLiteral("new.app")),
                          tree.path(QLatin1String(place)), {}, summary);
            QVERIFY2(error.message.contains(QLatin1String("lies in a bundle")), place);
        }
    }

    void proof_data()
    {
        QTest::addColumn<QString>("bundle"); // what is changed once the patch's commands are made
        QTest::addColumn<QString>("item");
        QTest::addColumn<QString>("reason");
        QTest::newRow("old file") << QStringLiteral("old.app") << QStringLiteral("a->none")
                                  << QStringLiteral("does not apply");
        QTest::newRow("new file") << QStringLiteral("new.app") << QStringLiteral("a=")
                                  << QStringLiteral("a differs");
        QTest::newRow("one more file")
            << QStringLiteral("new.app") << QStringLiteral("b=") << QStringLiteral("b differs");
        QTest::newRow("link's target")
            << QStringLiteral("new.app") << QStringLiteral("k->a") << QStringLiteral("k differs");
    }

    // A patch that does not give the new bundle gets no name.
    void proof()
    {
        QFETCH(QString, bundle);
        QFETCH(QString, item);
        QFETCH(QString, reason);
        const TemporaryTree tree;
        makeTree(tree, QStringLiteral("old.app"), {QStringLiteral("*a=1")});
        makeTree(tree, QStringLiteral("new.app"), {QStringLiteral("*a=2"), QStringLiteral("k->b")});
        PatchMakerOptions options;
        options.progress = [&](const QString &step, qint64, qint64) {
            if (step == QLatin1String("compressing")) {
                QDir(tree.path(bundle)).remove(item.first(1));
                makeTree(tree, bundle, {item});
            }
        };
        PatchSummary summary;
        const ZELError error =
            makePatch(tree.path(QStringLiteral("old.app")), tree.path(QStringLiteral("new.app")),
                      tree.path(QStringLiteral("patch")), options, summary);
        QVERIFY2(error.message.contains(reason), qPrintable(error.message));
        QVERIFY(!QFileInfo::exists(tree.path(QStringLiteral("patch"))));
    }
};

QTEST_GUILESS_MAIN(tst_PatchMaker)
#include "tst_PatchMaker.moc"
