#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "publish/PatchMaker.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/TemporaryTree.h"

#include <QRegularExpression>

using namespace zel;

namespace {

// A tree in words, with ", " between its items: "path" of a file with its content after "=", a folder's path
// ends in "/", a link's target after "->", an executable's path starts with "*".
void makeTree(const TemporaryTree &tree, const QString &root, const QString &items)
{
    tree.directory(root);
    for (QString item : items.split(", ", Qt::SkipEmptyParts)) {
        const bool executable = item.startsWith(u'*');
        if (executable)
            item.remove(0, 1);
        const QString path = root + u'/' + item.section(item.contains("->") ? "->" : "=", 0, 0);
        if (item.contains("->"))
            tree.link(path, item.section("->", 1));
        else if (item.endsWith(u'/'))
            tree.directory(path);
        else
            tree.write(path, item.section('=', 1).toUtf8(), executable ? 0755 : 0644);
    }
}

// Two bundles, and the patch from one to the other.
struct Bundles {
    Bundles(const QString &before, const QString &after)
    {
        makeTree(tree, "old.app", before);
        makeTree(tree, "new.app", after);
    }

    ZELError make(const PatchMakerOptions &options = {}, const QString &patch = "patch")
    {
        summary = {};
        return makePatch(tree.path("old.app"), tree.path("new.app"), tree.path(patch), options, summary);
    }

    const TemporaryTree tree;
    PatchSummary summary;
};

} // namespace

class tst_PatchMaker : public QObject
{
    Q_OBJECT
private slots:
    void changes()
    {
        const QString text = "a=" + QString("line of a text that does not change ").repeated(500);
        const QString info = "Contents/Info.plist=<plist version=\"1.0\"><dict><key>CFBundleExecutable</key>"
                             "<string>b</string></dict></plist>, ";
        // The bundles, and the commands from one to the other.
        const std::tuple<const char *, QString, QString, QString> cases[] = {
            {"nothing", "a=1, d/, l->a", "a=1, d/, l->a", ""},
            {"file becomes folder", "x=1", "x/y=1", "delete x, adddirectory x, add x/y"},
            {"folder becomes file", "x/y/z=1, x/l->y", "x=1", "delete x, add x"},
            {"link becomes file", "x->y, y=1", "x=2, y=1", "delete-symlink x, add x"},
            {"file becomes link", "x=1, y=1", "x->y, y=1", "delete x, create-symlink x"},
            {"link becomes folder", "x->y, y/a=1", "x/b=2, y/a=1",
             "delete-symlink x, adddirectory x, add x/b"},
            {"folder becomes link", "x/a=1, y/a=1", "x->y, y/a=1", "delete x, create-symlink x"},
            {"link gets another target", "l->a, a=1", "l->b, a=1", "delete-symlink l, create-symlink l"},
            {"empty folders come and go", "old/", "new/deep/",
             "delete old, adddirectory new, adddirectory new/deep"},
            {"names around a removed folder", "a/b=1, a/l->b, a-b/c=1, a.b=1", "",
             "delete a, delete a-b, delete a.b"},
            {"nested additions", "", "a/b/c/d=1, a/b/l->c",
             "adddirectory a, adddirectory a/b, adddirectory a/b/c, add a/b/c/d, create-symlink a/b/l"},
            {"awkward names", "it's $HOME & \"x\"\n=1", "Größe (2);`x`=1",
             "delete it's $HOME & \"x\"\n, add Größe (2);`x`"},
            {"dangling and outward links", "", "l->../../x, m->/dev/null",
             "create-symlink l, create-symlink m"},
            {"to and from empty", "a=, b=1", "a=1, b=", "add a, add b"},
            {"delta where smaller", text, text + u'!', "patch a"},
            {"whole where smaller", "a=something wholly different", "a=zzz", "add a"},
            {"an executable is always a delta", "*a=something wholly different", "*a=zzz", "patch a"},
            {"a file that becomes executable is, too", "a=1", "*a=2", "patch a"},
            {"the bundle's program may be new", info + "*Contents/MacOS/a=1", info + "*Contents/MacOS/b=1",
             "delete Contents/MacOS/a, add Contents/MacOS/b"},
            {"an executable that stays needs nothing", "a=1", "*a=1", ""},
        };
        for (const auto &[name, before, after, commands] : cases) {
            const Case current(name);
            Bundles bundles(before, after);
            const TemporaryTree &tree = bundles.tree;
            const ZELError error = bundles.make();
            QVERIFY2(!error, qPrintable(error.message));
            PatchFile file;
            QVERIFY(!PatchFile::read(tree.path("patch"), {}, file));
            QStringList made;
            for (const PatchCommand &command : file.manifest.commands)
                made.append(wordOf(command.action) + u' ' + command.path);
            QCOMPARE(made.join(", "), commands);

            PatchMakerOptions sparing;
            sparing.memory = 1;
            QVERIFY(!bundles.make(sparing, "same patch"));
            QCOMPARE(tree.read("same patch"), tree.read("patch"));

            QVariantList log;
            const QString built = tree.path("built.app");
            QVERIFY(ZELUpdaterApplyPatch(tree.path("old.app"), built, tree.path("patch"), log));
            QCOMPARE(TemporaryTree::listing(built), TemporaryTree::listing(tree.path("new.app")));
            for (const QString &item : after.split(", ")) {
                if (item.startsWith(u'*'))
                    QCOMPARE(TemporaryTree::mode(built + u'/' + item.mid(1).section(u'=', 0, 0)), 0755);
            }
            QCOMPARE(QDir(tree.path()).entryList(QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot).size(), 3);
        }
    }

    void deltasAreCompacted()
    {
        const QString shared = "too short to pay"; // but long enough for the scan
        const QString fresh = QString("12345").repeated(9) + shared + QString("67890").repeated(9);
        Bundles bundles("*a=" + shared, "*a=" + fresh);
        QVERIFY(!bundles.make());
        PatchFile file;
        QVERIFY(!PatchFile::read(bundles.tree.path("patch"), {}, file));
        QCOMPARE(file.payload.size(), 32 + 24 + fresh.size()); // header, one triple, new bytes
    }

    // A large file's share of the work shows while its old one is sorted and while it is searched.
    void progressMovesWithinAFile()
    {
        Bundles bundles("", "");
        for (const unsigned seed : {1, 2})
            bundles.tree.write(seed == 1 ? "old.app/a" : "new.app/a", randomBytes(1 << 18, 256, seed));
        QList<qint64> shares;
        PatchMakerOptions options;
        options.progress = [&](const QString &step, qint64 done, qint64 total) {
            if (step == "a")
                shares.append(100 * done / total);
        };
        QVERIFY(!bundles.make(options));
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
        Bundles bundles("", "");
        const QByteArray noise = randomBytes(32768, 256, 1);
        QList<qint64> sizes;
        for (qsizetype taken = 32530; sizes.isEmpty() || sizes.last() <= 32768; ++taken) {
            bundles.tree.write("new.app/noise", noise.first(taken));
            QVERIFY(!bundles.make());
            sizes.append(bundles.summary.size);
        }
        QVERIFY(sizes.first() < 32764);
        QVERIFY(sizes.contains(32764));
        QVERIFY(!sizes.contains(32768));
    }

    void lostModes()
    {
        Bundles bundles("link->x", "*link=1, *tool=1");
        const ZELError error = bundles.make();
        QVERIFY(error.message.contains("link, tool"));
        QVERIFY(error.message.contains("--allow-lost-modes"));
        QVERIFY(!QFileInfo::exists(bundles.tree.path("patch")));
        PatchMakerOptions options;
        options.allowLostModes = true;
        QVERIFY(!bundles.make(options));
        QCOMPARE(bundles.summary.lostModes, (QStringList{"link", "tool"}));
    }

    // What was at the patch's place stays there.
    void refusals()
    {
        using Spoil = int (*)(const QByteArray &);
        const std::pair<const char *, Spoil> cases[] = {
            {"neither a file", [](const QByteArray &bundle) { return ::mkfifo(bundle + "/fifo", 0644); }},
            {"name of .*not UTF-8",
             [](const QByteArray &bundle) { return ::symlink("x", bundle + "/\xff\xfe"); }},
            {"target of .*not UTF-8",
             [](const QByteArray &bundle) { return ::symlink("\xff\xfe", bundle + "/x"); }},
            {"cannot read the bundle", [](const QByteArray &bundle) { return ::rmdir(bundle); }},
        };
        for (const auto &[reason, spoil] : cases) {
            const Case current(reason);
            Bundles bundles("a=1", "");
            bundles.tree.write("patch", "an earlier patch");
            QCOMPARE(spoil(bundles.tree.path("new.app").toUtf8()), 0);
            const ZELError error = bundles.make();
            QVERIFY2(error.message.contains(QRegularExpression(reason)), qPrintable(error.message));
            QCOMPARE(bundles.tree.read("patch"), "an earlier patch");
        }
    }

    void patchInsideABundleIsRefused()
    {
        Bundles bundles("a=1", "a=1");
        bundles.tree.link("link", "new.app");
        for (const char *place : {"old.app/patch", "new.app/none/patch", "link/patch", "new.app"})
            QVERIFY2(bundles.make({}, place).message.contains("lies in a bundle"), place);
    }

    // A patch that does not give the new bundle gets no name.
    void proof()
    {
        // What is changed once the patch's commands are made.
        const std::tuple<const char *, QString, QString> cases[] = {
            {"old.app", "a->none", "does not apply"},
            {"new.app", "a=", "a differs"},
            {"new.app", "b=", "b differs"},
            {"new.app", "k->a", "k differs"},
        };
        for (const auto &[bundle, item, reason] : cases) {
            const Case current(item);
            Bundles bundles("*a=1", "*a=2, k->b");
            PatchMakerOptions options;
            options.progress = [&, bundle = bundle, item = item](const QString &step, qint64, qint64) {
                if (step != "compressing")
                    return;
                QDir(bundles.tree.path(bundle)).remove(item.first(1));
                makeTree(bundles.tree, bundle, item);
            };
            const ZELError error = bundles.make(options);
            QVERIFY2(error.message.contains(reason), qPrintable(error.message));
            QVERIFY(!QFileInfo::exists(bundles.tree.path("patch")));
        }
    }
};

QTEST_GUILESS_MAIN(tst_PatchMaker)
#include "tst_PatchMaker.moc"
