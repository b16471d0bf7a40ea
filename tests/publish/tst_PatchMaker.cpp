#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "publish/PatchMaker.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/PlainApplier.h"
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

QStringList withModes(const QString &bundle)
{
    QStringList items = TemporaryTree::listing(bundle);
    for (QString &item : items) {
        if (item.contains(" = "))
            item += QString(" %1").arg(TemporaryTree::mode(bundle + '/' + item.section(" = ", 0, 0)), 0, 8);
    }
    return items;
}

// Two bundles, and the patch from one to the other.
struct Bundles {
    Bundles(const QString &before, const QString &after)
    {
        makeTree(tree, "old.app", before);
        makeTree(tree, "new.app", after);
    }

    ZELError make(const PatchMakerOptions &options = {.format = 1}, const QString &patch = "patch")
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

            PatchMakerOptions sparing{.format = 1};
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

    // Format 2: names mean nothing, and modes arrive.
    void movedFiles()
    {
        const auto text = [](int seed) {
            QString lines;
            for (const char value : randomBytes(600, 200, unsigned(seed)))
                lines += QString("word%1 ").arg(int(uchar(value)));
            return lines;
        };
        const QString a = text(1);
        const QString b = text(2);
        const QString fresh = text(3);
        const QString nearly = a.left(a.size() * 7 / 8);
        const QString half = a.left(a.size() / 2);
        // The bundles, the commands from one to the other, and how many bytes their payload has at most.
        const std::tuple<const char *, QString, QString, QString, qsizetype> cases[] = {
            {"nothing", "a=1, *b=2", "a=1, *b=2", "", 0},
            {"renamed", "a=" + a, "d/b=" + a, "delete a, adddirectory d, copy d/b<a", 0},
            {"renamed and changed", "x-1.js=" + a + ", y-1.js=" + b, "x-2.js=" + b + "!, y-2.js=" + a + "!",
             "delete x-1.js, delete y-1.js, patch x-2.js<y-1.js, patch y-2.js<x-1.js", 12'000},
            {"doubled", "a=" + a, "a=" + a + ", b=" + a, "copy b<a", 0},
            {"swapped", "a=" + a + ", b=" + b, "a=" + b + ", b=" + a, "copy a<b, copy b<a", 0},
            {"small", "a1=some file of a few words, and hardly any more of them than these, b=x",
             "a2=some file of a few words, and hardly any more of them than these, b=x",
             "delete a1, copy a2<a1", 0},
            {"its own place is preferred", "a=" + nearly + ", b=" + a, "a=" + a + "!, b=" + a, "patch a",
             12'000},
            {"unless another is clearly better", "a=" + a + ", b=" + b, "a=" + b + "!, b=" + b, "patch a<b",
             12'000},
            {"one slice for equal files", "", "a=" + fresh + ", b=" + fresh + ", c=" + fresh,
             "add a, add b, add c", fresh.size()},
            {"one delta for equal files", "a=" + a, "b=" + a + "!, c=" + a + '!',
             "delete a, patch b<a, patch c<a", 6'000},
            {"nothing like it", "a=" + a, "a=" + a + ", b=" + fresh, "add b", fresh.size()},
            {"half of it", "a=" + a, "b=" + half + fresh, "delete a, patch b<a", 12'000},
            {"an executable may be whole", "*a=something wholly different", "*a=zzz", "add a", 3},
            {"new executables", "link->x", "*link=1, *tool=1", "delete-symlink link, add link, add tool", 1},
            {"modes alone", "a=1, *b=2, c=3", "*a=1, b=2, c=3", "mode a, mode b", 0},
            {"empty files", "a=1, e=", "a=1, e=, f=, g=", "copy f<e, copy g<e", 0},
        };
        for (const auto &[name, before, after, commands, most] : cases) {
            const Case current(name);
            Bundles bundles(before, after);
            const TemporaryTree &tree = bundles.tree;
            const ZELError error = bundles.make({});
            QVERIFY2(!error, qPrintable(error.message));
            PatchFile file;
            QVERIFY(!PatchFile::read(tree.path("patch"), {}, file));
            QCOMPARE(file.manifest.format, 2);
            QStringList made;
            for (const PatchCommand &command : file.manifest.commands) {
                made.append(wordOf(command.action) + u' ' + command.path);
                const bool fromOld =
                    command.action == PatchAction::Copy || command.action == PatchAction::Patch;
                if (fromOld && command.from != command.path)
                    made.last() += u'<' + command.from;
                QCOMPARE(command.sha256.has_value(), buildsFile(command.action));
            }
            QCOMPARE(made.join(", "), commands);
            QVERIFY2(file.payload.size() <= most, qPrintable(QString::number(file.payload.size())));
            QCOMPARE(file.manifest.requirements.contains("moved-files"), commands.contains('<'));
            QCOMPARE(file.manifest.requirements.contains("modes"),
                     std::ranges::any_of(file.manifest.commands,
                                         [](const PatchCommand &each) { return each.mode.has_value(); }));

            PlainApplier plain(tree.path("old.app"), tree.path("plain.app"), tree.path("patch"));
            QCOMPARE(plain.apply(), "");
            QCOMPARE(withModes(tree.path("plain.app")), withModes(tree.path("new.app")));

            QVERIFY(!bundles.make({.memory = 1}, "same patch"));
            QCOMPARE(tree.read("same patch"), tree.read("patch"));
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
        PatchMakerOptions options{.format = 1};
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
        PatchMakerOptions options{.format = 1};
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
            PatchMakerOptions options{.format = 1};
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
