#include "generate/bsdiff2.h"
#include "install/MD5FromData.h"
#include "install/PatchFile.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "publish/XZWriter.h"
#include "support/LogCapture.h"
#include "support/PatchBuilder.h"
#include "support/TemporaryTree.h"

#include <QRegularExpression>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace zel;

namespace {

// One line an entry: its description, and the file that it names.
QStringList descriptions(const QVariantList &log)
{
    QStringList result;
    for (const QVariant &entry : log) {
        const QVariantMap keys = entry.toMap();
        result.append(keys["description"].toString());
        if (keys.contains("file"))
            result.last() += ": " + keys["file"].toString();
    }
    return result;
}

const QStringList Opening{"Starting Patch", "Old file", "Patch file", "New file", "chmod'ing new file"};

// What a bundle holds, one line an item: a file's content, a link's target, a folder's slash.
QStringList listing(const QString &bundle)
{
    QStringList items;
    QDirIterator files(bundle, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        const QString name = QDir(bundle).relativeFilePath(path);
        if (files.fileInfo().isSymLink())
            items.append(name + " -> " + QString::fromUtf8(TemporaryTree::linkTarget(path)));
        else if (files.fileInfo().isDir())
            items.append(name + u'/');
        else
            items.append(name + " = " + QString::fromUtf8(TemporaryTree::contents(path)));
    }
    items.sort();
    return items;
}

QByteArray delta(const QByteArray &from, const QByteArray &to)
{
    const TemporaryTree tree;
    const auto bytes = bsdiff2(tree.write("a", from).toStdString(), tree.write("b", to).toStdString());
    return QByteArray(reinterpret_cast<const char *>(bytes->data()), qsizetype(bytes->size()));
}

// Makes an empty file of any file.
const QByteArray DeltaToNothing = "BSDIFN40" + QByteArray(24, '\0');

} // namespace

class tst_ApplyPatch : public QObject
{
    Q_OBJECT

    // Applies a patch to what the tree holds as old.app.
    static bool applyIn(const TemporaryTree &tree, const QByteArray &patch, QVariantList &log)
    {
        return ZELUpdaterApplyPatch(tree.path("old.app"), tree.path("new.app"), tree.write("patch", patch),
                                    log);
    }

    // An old bundle whose path holds all that a shell would trip over.
    QString oldBundle(const TemporaryTree &tree) const
    {
        const QString name = "it's $HOME; \"old\" (1) & Größe\n.app";
        tree.write(name + "/Contents/file", "old file");
        tree.write(name + "/Contents/sub/deep", "deep");
        tree.link(name + "/Contents/link", "file");
        tree.link(name + "/Contents/folderlink", "sub");
        tree.link(name + "/Contents/out", "../../outside");
        tree.link(name + "/Contents/absolute", tree.path("outside"));
        tree.link(name + "/Contents/circle", "circle");
        tree.write("outside/treasure", "treasure");
        return tree.path(name);
    }

    struct Outcome {
        bool applied;
        QVariantList log;
        QStringList before;
        QStringList after;
    };

    Outcome apply(const TemporaryTree &tree, const QByteArray &patch)
    {
        Outcome outcome;
        const QString old = oldBundle(tree);
        const QString built = tree.path("new $(touch x).app");
        tree.write("new $(touch x).app/leftover", "from before");
        outcome.before = listing(old);
        outcome.applied = ZELUpdaterApplyPatch(old, built, tree.write("patch", patch), outcome.log);
        outcome.after = listing(built);
        if (listing(old) != outcome.before)
            qFatal("the old bundle was changed");
        if (tree.read("outside/treasure") != "treasure" || QDir(tree.path("outside")).count() != 3)
            qFatal("something outside was touched");
        return outcome;
    }

private slots:
    void commands_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<QString>("gone"); // line of the old listing that must be missing
        QTest::addColumn<QString>("there"); // line that must have come
        QTest::addColumn<QString>("entry"); // log entry between the opening and the end

        const auto row = [](const char *name, const QByteArray &commands, const char *gone, const char *there,
                            const char *entry = "") {
            QTest::newRow(name) << commands << gone << there << entry;
        };
        const auto add = [](const char *path, qint64 position, qint64 length) {
            return command("add", path, slice(position, length));
        };
        row("unknown action", command("explode", "../x"), "", "");
        row("no actions", R"({"path":"Contents/file"}, 7, null, {"actions":"delete","path":"Contents/file"})",
            "", "");
        row("delete folder", command("delete", "Contents/sub"), "Contents/sub/deep = deep", "");
        row("delete of a link leaves its target", command("delete", "Contents/out"),
            "Contents/out -> ../../outside", "");
        row("a slash behind a link means the link", command("delete", "Contents/folderlink/"),
            "Contents/folderlink -> sub", "Contents/sub/deep = deep");
        row("delete below a file", command("delete", "Contents/file/x"), "", "");
        row("add", add("Contents/new/file", 3, 4), "", "Contents/new/file = load");
        row("add nothing", add("Contents/empty", 7, 0), "", "Contents/empty = ");
        row("add replaces", add("Contents/file", 0, 3), "Contents/file = old file", "Contents/file = pay");
        row("add replaces a link", add("Contents/absolute", 0, 3), "", "Contents/absolute = pay");
        row("add through a link that stays inside", add("Contents/folderlink/x", 0, 3), "",
            "Contents/sub/x = pay");
        row("numbers as text", command("add", "t", R"(,"position":" 3","length":"4th")"), "", "t = load");
        row("add directory", command("adddirectory", "Contents/a/b/c"), "", "Contents/a/b/c/");
        row("add directory over a file", command("adddirectory", "Contents/file"), "",
            "Contents/file = old file");
        row("only the first action counts",
            R"({"actions":["create-symlink","delete-symlink"],"path":"Contents/link","symlink":"sub"})",
            "Contents/link -> file", "");
        row("delete link that is not there", command("delete-symlink", "Contents/none"), "", "",
            "Error deleting symlink: Contents/none");
        row("create link", command("create-symlink", "Contents/l", R"(,"symlink":"/any/where")"), "",
            "Contents/l -> /any/where");
        row("create link over a link", command("create-symlink", "Contents/link", R"(,"symlink":"sub")"), "",
            "Contents/link -> file", "Error creating symlink: Contents/link");
        row("file becomes folder", command("delete", "Contents/file") + ',' + add("Contents/file/x", 0, 3),
            "Contents/file = old file", "Contents/file/x = pay");
    }

    void commands()
    {
        QFETCH(QByteArray, commands);
        QFETCH(QString, gone);
        QFETCH(QString, there);
        QFETCH(QString, entry);
        const TemporaryTree tree;
        const Outcome outcome = apply(tree, patchOfCommands(commands));

        QVERIFY(outcome.applied);
        QStringList expected = Opening;
        if (!entry.isEmpty())
            expected.append(entry);
        QCOMPARE(descriptions(outcome.log), expected << "Patch succeeded");
        if (!gone.isEmpty())
            QVERIFY2(!outcome.after.contains(gone), qPrintable(outcome.after.join(u'\n')));
        if (!there.isEmpty())
            QVERIFY2(outcome.after.contains(there), qPrintable(outcome.after.join(u'\n')));
        if (gone.isEmpty() && (there.isEmpty() || outcome.before.contains(there)))
            QCOMPARE(outcome.after, outcome.before);
    }

    void refusals_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<QString>("entry");

        const auto row = [](const char *name, const QByteArray &commands, const QString &entry) {
            QTest::newRow(name) << commands << entry;
        };
        const auto add = [row](const char *name, const char *path, const QString &entry) {
            row(name, command("add", path, slice(0, 3)), entry);
        };
        const char *const outside = "Error: path is not inside the bundle: ";
        const auto refused = [add, outside](const char *name, const char *path) {
            add(name, path, outside + QString::fromUtf8(path).replace("\\u0000", QChar(u'\0')));
        };
        refused("empty path", "");
        refused("the root itself", "./.");
        refused("absolute path", "/tmp/x");
        refused("parent", "../outside/x");
        refused("NUL in a path", "Contents/x\\u0000y");
        refused("through a relative link", "Contents/out/x");
        refused("through an absolute link", "Contents/absolute/x");
        refused("through a circle", "Contents/circle/x");
        add("where a folder is", "Contents/sub", "Error creating file: Contents/sub");
        add("below a file", "Contents/file/x", "Error creating file: Contents/file/x");

        row("path is missing", R"({"actions":["delete"]})", outside);
        const QString treasure = outside + QStringLiteral("Contents/out/treasure");
        row("delete outside", command("delete", "Contents/out/treasure"), treasure);
        row("unlink outside", command("delete-symlink", "Contents/out/treasure"), treasure);
        row("through a link made before",
            command("create-symlink", "up", R"(,"symlink":"..")") + ',' + command("delete", "up/outside"),
            outside + QStringLiteral("up/outside"));
        // What lies at 7 is sound: only its stated place is wrong.
        constexpr qint64 max = std::numeric_limits<qint64>::max();
        for (const auto &[position, length] : {std::pair(-1ll, 33ll), {7, -1}, {40, 0}, {7, max}, {max, 1}}) {
            const QByteArray wrong = slice(position, length);
            row(wrong, command("patch", "Contents/file", wrong + R"(,"hash":"")"),
                "Error patching file: Contents/file");
        }
        row("file outside the payload", command("add", "x", slice(8, 32)), "Error creating file: x");
        const auto delta = [](const char *path) {
            return command("patch", path, slice(7, 32) + R"(,"hash":"")");
        };
        row("delta of a file outside", delta("Contents/out/treasure"), treasure);
        row("delta through a link to a file outside",
            command("create-symlink", "l", R"(,"symlink":"../outside/treasure")") + ',' + delta("l"),
            outside + QStringLiteral("l"));
        row("delta from a file outside",
            command("delete-symlink", "Contents/out") + ',' + command("adddirectory", "Contents/out") + ','
                + delta("Contents/out/treasure"),
            "Error patching file: Contents/out/treasure");
        row("delta that is none", command("patch", "Contents/file", slice(0, 7) + R"(,"hash":"")"),
            "Error patching file: Contents/file");
    }

    void refusals()
    {
        QFETCH(QByteArray, commands);
        QFETCH(QString, entry);
        const TemporaryTree tree;
        // What follows a refused command is not performed.
        const Outcome outcome =
            apply(tree,
                  patchOfCommands(commands + R"(,{"actions":["delete"],"path":"Contents/file"})",
                                  "payload" + DeltaToNothing));

        QVERIFY(!outcome.applied);
        QCOMPARE(descriptions(outcome.log), QStringList(Opening) << entry << "Patch failed");
        QVERIFY(outcome.after.contains("Contents/file = old file"));
        QVERIFY(!outcome.after.contains("leftover = from before"));
    }

    // With links in the bundle and paths in the manifest that name each other: each command is one path,
    // walked as "add".
    void walks_data()
    {
        QTest::addColumn<QStringList>("links"); // path>target
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("item"); // where it leads; empty where the path is refused

        const auto around = [](int times) { return QString("d/../").repeated(times); };
        const auto row = [](const QString &name, const QStringList &links, const QString &path,
                            const QString &item) {
            QTest::newRow(qPrintable(name)) << links << path << item;
        };
        const QString longest = QString("d/").repeated(120) + QString("./").repeated(1927) + 'x';
        row("as long as a path may be", {}, longest, QString("d/").repeated(120) + 'x');
        row("a byte longer", {}, '/' + longest.mid(1) + 'x', "");
        row("as deep as a file may be", {}, QString("d/").repeated(128) + 'x',
            QString("d/").repeated(128) + 'x');
        row("deeper", {}, QString("d/").repeated(129) + 'x', "");
        row("deeper, through a link", {"l>" + QString("d/").repeated(64)},
            "l/" + QString("d/").repeated(65) + "x", "");
        row("up through a link", {"d/l>../e/../d/f"}, "d/l/x", "d/f/x");
        row("to the root by a link", {"d/l>.."}, "d/l/x", "x");
        row("out by way of what is missing", {"l>none/../../x"}, "l/x", "");
        row("in by way of what is missing", {"l>none/../d"}, "l/x", "d/x");
        row("through a file", {}, "old/../../x", "");
        row("many names", {"l>" + around(800)}, "l/x", "x");
        row("too many names", {"l>" + around(800), "k>l/l/l"}, "k/x", "");
        QStringList chain{"l0>d"};
        for (int i = 1; i <= 40; ++i)
            chain.append(QString("l%1>l%2").arg(i).arg(i - 1));
        row("forty links", chain, "l39/x", "d/x");
        row("forty-one links", chain, "l40/x", "");
    }

    void walks()
    {
        QFETCH(QStringList, links);
        QFETCH(QString, path);
        QFETCH(QString, item);
        const TemporaryTree tree;
        tree.write("old.app/d/old", "old");
        for (const QString &link : links)
            tree.link("old.app/" + link.section('>', 0, 0), link.section('>', 1));
        const QStringList before = listing(tree.path("old.app"));
        QVariantList log;
        const bool applied = applyIn(tree, patchOfCommands(command("add", path.toUtf8(), slice(0, 3))), log);
        QCOMPARE(applied, !item.isEmpty());
        if (applied)
            QCOMPARE(tree.read("new.app/" + item), "pay");
        else
            QCOMPARE(listing(tree.path("new.app")), before);
    }

    // Folders stay open from one command to the next.
    void walksThroughWhatWasReplaced()
    {
        const TemporaryTree tree;
        tree.write("old.app/a/b/c/old", "old");
        tree.write("outside/treasure", "treasure");
        const auto add = [](const char *path) { return command("add", path, slice(0, 3)); };
        const QByteArrayList commands{add("a/b/c/x"),
                                      command("delete", "a/b"),
                                      add("a/b/c/y"),
                                      command("delete", "a/b"),
                                      command("create-symlink", "a/b", R"(,"symlink":"../../outside")"),
                                      command("delete", "a/b/treasure")};
        QVariantList log;
        QVERIFY(!applyIn(tree, patchOfCommands(commands.join(',')), log));
        QCOMPARE(descriptions(log).value(5), "Error: path is not inside the bundle: a/b/treasure");
        QCOMPARE(tree.read("outside/treasure"), "treasure");

        QVERIFY(applyIn(tree, patchOfCommands(commands.first(3).join(',')), log));
        QCOMPARE(listing(tree.path("new.app")), QStringList({"a/", "a/b/", "a/b/c/", "a/b/c/y = pay"}));
    }

    // Each command alone is within bounds.
    void allWalksAreBoundedTogether()
    {
        const TemporaryTree tree;
        tree.directory("old.app/d");
        tree.link("old.app/l", QString("d/../").repeated(800));
        const int commands = int((1 << 20) / 1600) + 1;
        QByteArrayList list(commands, command("delete", "l/x"));
        QVariantList log;
        QVERIFY(applyIn(tree, patchOfCommands(QByteArrayList(list.first(commands / 2)).join(',')), log));
        QVERIFY(!applyIn(tree, patchOfCommands(list.join(',')), log));
    }

    void deltas_data()
    {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("to");
        QTest::addColumn<QString>("hash"); // null: the key is left out
        QTest::addColumn<bool>("succeeds");

        const auto row = [](const char *name, const QByteArray &from, const QByteArray &to,
                            const QString &hash,
                            bool succeeds) { QTest::newRow(name) << from << to << hash << succeeds; };
        const QByteArray whole(65536, 'x');
        row("wrong hash", "old", "new", MD5FromData("old"), false);
        row("missing hash", "old", "new", {}, false);
        row("whole chunks", "old", whole, "", true);
        row("whole chunks, missing hash", "old", whole, {}, false);
        row("to empty", "old", "", "", true);
        row("from empty", "", "new", MD5FromData("new"), true);
    }

    void deltas()
    {
        QFETCH(QByteArray, from);
        QFETCH(QByteArray, to);
        QFETCH(QString, hash);
        QFETCH(bool, succeeds);
        const TemporaryTree tree;
        tree.write("old.app/f", from, 0444);
        const QByteArray payload = delta(from, to);
        const QByteArray hashKey = hash.isNull() ? QByteArray() : ",\"hash\":\"" + hash.toUtf8() + '"';
        const QByteArray commands = command("patch", "f", slice(0, payload.size()) + hashKey);
        QVariantList log;
        QCOMPARE(applyIn(tree, patchOfCommands(commands, payload), log), succeeds);
        QCOMPARE(tree.read("new.app/f"), to);
        QCOMPARE(tree.read("old.app/f"), from);
        // The delta's result keeps the file, and with it the mode of the permission step.
        QCOMPARE(TemporaryTree::mode(tree.path("new.app/f")), 0755);
        if (!succeeds) {
            const QVariantMap entry = log.at(log.size() - 2).toMap();
            QCOMPARE(entry["description"].toString(), "Hash error");
            QCOMPARE(entry["original"].toByteArray(), from);
            QCOMPARE(entry["new"].toByteArray(), to);
        }
    }

    void failedDeltaLogsWhatCouldBeRead_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<bool>("hasOriginal");
        QTest::addColumn<bool>("hasNew");

        const auto patch = [](const char *path) {
            return command("patch", path, slice(0, 3) + R"(,"hash":"x")");
        };
        QTest::newRow("both, empty ones too") << patch("f") << true << true;
        QTest::newRow("new is gone") << command("delete", "f") + ',' + patch("f") << true << false;
        QTest::newRow("original never was")
            << command("add", "g", slice(0, 0)) + ',' + patch("g") << false << true;
        QTest::newRow("neither") << patch("g") << false << false;
        QTest::newRow("the largest that is logged") << patch("1 MiB") << true << true;
        QTest::newRow("larger ones are left out")
            << command("add", "larger", slice(0, 0)) + ',' + patch("larger") << false << true;
    }

    void failedDeltaLogsWhatCouldBeRead()
    {
        QFETCH(QByteArray, commands);
        QFETCH(bool, hasOriginal);
        QFETCH(bool, hasNew);
        const TemporaryTree tree;
        tree.write("old.app/f", "");
        tree.write("old.app/1 MiB", QByteArray(1 << 20, 'x'));
        tree.write("old.app/larger", QByteArray((1 << 20) + 1, 'x'));
        QVariantList log;
        QVERIFY(!applyIn(tree, patchOfCommands(commands), log));
        const QVariantMap entry = log.at(log.size() - 2).toMap();
        QCOMPARE(entry["description"].toString(), "Error patching file");
        QCOMPARE(entry.contains("original"), hasOriginal);
        QCOMPARE(entry.contains("new"), hasNew);
    }

    void modes_data()
    {
        QTest::addColumn<QString>("item");
        QTest::addColumn<int>("mode");
        const std::pair<const char *, int> rows[] = {
            {"new.app", 0755},          {"new.app/kept", 0755},
            {"new.app/replaced", 0640}, {"new.app/added", 0640},
            {"new.app/special", 0755},  {"new.app/folder", 0755},
            {"new.app/made", 0750},     {"new.app/Contents/MacOS/program", 0750},
            {"new.app/program", 0640},  {"old.app/kept", 0600},
            {"old.app/special", 06755},
        };
        for (const auto &[item, mode] : rows)
            QTest::newRow(item) << item << mode;
    }

    // All folders here hand their group on, as shared ones do.
    void modes()
    {
        QFETCH(QString, item);
        QFETCH(int, mode);
        const mode_t before = ::umask(027);
        const TemporaryTree tree;
        ::chmod(tree.path().toUtf8().constData(), 02755);
        tree.write("old.app/kept", "x", 0600);
        tree.write("old.app/replaced", "x", 0755);
        tree.write("old.app/special", "x", 06755);
        ::chmod(tree.directory("old.app/folder").toUtf8().constData(), 03777);
        QVariantList log;
        const QByteArray info =
            "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>program</string>"
            "</dict></plist>";
        QByteArray commands = command("add", "Contents/Info.plist", slice(0, info.size()));
        for (const char *path : {"replaced", "added", "Contents/MacOS/program", "program"})
            commands += ',' + command("add", path, slice(0, 1));
        commands += ',' + command("adddirectory", "made");
        const bool applied = applyIn(tree, patchOfCommands(commands, info), log);
        ::umask(before);
        QVERIFY(applied);
        QCOMPARE(QString::number(TemporaryTree::mode(tree.path(item)), 8), QString::number(mode, 8));
    }

    void leavesAMarker()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        const QByteArray before = qgetenv("TMPDIR");
        qputenv("TMPDIR", tree.directory("tmp").toUtf8());
        QVariantList log;
        const bool applied = applyIn(tree, patchOfCommands(""), log);
        before.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", before);
        QVERIFY(applied);
        const QStringList left = QDir(tree.path("tmp")).entryList({"*-*"});
        QCOMPARE(left.size(), 1);
        QCOMPARE(left[0], QUuid(left[0]).toString(QUuid::WithoutBraces).toUpper());
    }

    void patchFiles_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<bool>("succeeds");

        const QByteArray manifest = xz(R"({"commands":[]})");
        const QByteArray payload = xz("payload");
        const QByteArray size = QByteArray::number(manifest.size());
        const auto row = [](const char *name, const QByteArray &file, bool succeeds) {
            QTest::newRow(name) << file << succeeds;
        };
        row("padded with NULs", patchFile(size, manifest, payload), true);
        row("padded with blanks", patchFile(size.leftJustified(32, ' '), manifest, payload), true);
        row("blanks before, sign, junk behind", patchFile("  +" + size + " junk", manifest, payload), true);
        row("not text", patchFile(size + '\xff', manifest, payload), false);
        row("negative length", patchFile("-5", manifest, payload), false);
        row("length past the end", patchFile("9999", manifest, payload), false);
        row("length beyond 64 bits", patchFile("99999999999999999999", manifest, payload), false);
        row("manifest is not xz", patchFile("3", "abc", payload), false);
        row("manifest is not JSON", patchOf("no json"), true);
        const auto commandsRow = [row](const char *name, const QByteArray &commands, bool succeeds) {
            row(name, patchOfCommands(commands), succeeds);
        };
        commandsRow("most commands", QByteArray("{},").repeated(199'999) + "{}", true);
        commandsRow("one command more", QByteArray("{},").repeated(200'000) + "{}", false);
        commandsRow("values of nothing", QByteArray("0,").repeated(2'000'000) + '0', false);
        commandsRow("values within each other", QByteArray("[[[],{}]],").repeated(400'000) + '0', false);
        const QByteArray values = QByteArray(R"([\",{[)").repeated(400'000);
        commandsRow("a text that looks like values", '"' + values + '"', true);
        commandsRow("a large manifest", QByteArray(16 << 20, ' '), false);
        const QByteArray names = command("none", QByteArray("no/").repeated(999) + "no");
        commandsRow("most names", QByteArray(names + ',').repeated(499) + names, true);
        commandsRow("one name more", QByteArray(names + ',').repeated(500) + command("none", "no"), false);
        const QByteArray zeros(40 << 20, '\0');
        const XZBlock nothing{zeros, XZContent::Sparse};
        const auto packed = compressXZBlocks(std::span(&nothing, 1), zeros.size());
        row("a payload of nothing", patchFile(size, manifest, packed.value()), false);
        row("manifest is an array", patchOf("[1]"), true);
        row("commands are no array", patchOf(R"({"commands":{"actions":["delete"]}})"), true);
        row("payload is followed by more", patchFile(size, manifest, payload + "more"), false);
        row("older container",
            patchFile(size, manifest, QByteArray::fromHex("5d00008000ffffffffffffffff0083fffbffffc0000000")),
            false);
    }

    void patchFiles()
    {
        QFETCH(QByteArray, file);
        QFETCH(bool, succeeds);
        const TemporaryTree tree;
        const Outcome outcome = apply(tree, file);
        QCOMPARE(outcome.applied, succeeds);
        QCOMPARE(descriptions(outcome.log).last(), succeeds ? "Patch succeeded" : "Patch failed");
        QCOMPARE(outcome.after, outcome.before);
    }

    void writes_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<int>("times");
        QTest::addColumn<bool>("succeeds");

        // A payload of 2 MiB, the first of which is a delta that gives nothing. The old file has 3 MiB.
        const auto row = [](const char *name, const QByteArray &commands, int times, bool succeeds) {
            QTest::addRow("%s %d times", name, times) << commands << times << succeeds;
        };
        for (const auto &[times, succeeds] : {std::pair(2, true), {3, false}}) {
            row("add the payload", command("add", "x", slice(0, 2 << 20)), times, succeeds);
            row("a delta of the payload", command("patch", "small", slice(0, 2 << 20) + R"(,"hash":"")"),
                times, succeeds);
        }
        row("read the old file", command("patch", "f", slice(0, 32) + R"(,"hash":"")"), 1, true);
        row("read the old file", command("patch", "f", slice(0, 32) + R"(,"hash":"")"), 2, false);
    }

    void writes()
    {
        QFETCH(QByteArray, commands);
        QFETCH(int, times);
        QFETCH(bool, succeeds);
        const TemporaryTree tree;
        tree.write("old.app/f", QByteArray(3 << 20, 'x'));
        tree.write("old.app/small", "x");
        QVariantList log;
        const QByteArray all = QByteArray(commands + ',').repeated(times - 1) + commands;
        QCOMPARE(applyIn(tree, patchOfCommands(all, DeltaToNothing + QByteArray((2 << 20) - 32, 'x')), log),
                 succeeds);
        if (!succeeds)
            QVERIFY(descriptions(log).at(log.size() - 2).startsWith("Error"));
    }

    // Nothing has room for a second copy of this file, which takes none itself.
    void missingSpaceIsTold()
    {
        const TemporaryTree tree;
        if (::truncate(tree.write("old.app/f", "").toUtf8().constData(), off_t(8) << 40) != 0)
            QSKIP("the file system has no such files");
        QVariantList log;
        QVERIFY(!applyIn(tree, patchOfCommands(""), log));
        const QRegularExpression told("^Error copying old app: .*[0-9]{12,} bytes are missing$");
        QVERIFY2(descriptions(log).last().contains(told), qPrintable(descriptions(log).last()));
        QVERIFY(!QFileInfo::exists(tree.path("new.app")));
    }

    void exhaustedMemoryIsAFailure()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("a sanitizer takes more memory than a limit could leave");
#endif
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        const QByteArray patch = patchOfCommands(QByteArray("[[0]],").repeated(300'000) + '0');
        QVariantList log;
        rlimit before;
        ::getrlimit(RLIMIT_AS, &before);
        const QByteArray pages = TemporaryTree::contents("/proc/self/statm").split(' ').first();
        const rlimit little{pages.toULong() * ulong(::sysconf(_SC_PAGESIZE)) + (48 << 20), before.rlim_max};
        ::setrlimit(RLIMIT_AS, &little);
        const bool applied = applyIn(tree, patch, log);
        ::setrlimit(RLIMIT_AS, &before);
        QVERIFY(!applied);
        QCOMPARE(descriptions(log).last(), "Patch failed");
    }

    // Beyond the limit the system raises a signal that would end the host.
    void limitOfFileSizesIsAFailure()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        const QByteArray payload(1 << 20, 'x');
        const QByteArray patch = patchOfCommands(command("add", "added", slice(0, payload.size())), payload);
        QVariantList log;
        rlimit before;
        ::getrlimit(RLIMIT_FSIZE, &before);
        const rlimit little{rlim_t(payload.size()) - 1, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &little);
        const bool applied = applyIn(tree, patch, log);
        ::setrlimit(RLIMIT_FSIZE, &before);
        QVERIFY(!applied);
        QCOMPARE(descriptions(log).at(log.size() - 2), "Error creating file: added");
    }

    void largePayloadGoesToAFile()
    {
        const TemporaryTree tree;
        const QByteArray payload = QByteArray("payload").repeated(1000);
        PatchFile::Reading reading;
        reading.memory = payload.size() - 1;
        reading.folder = tree.directory("beside");
        {
            PatchFile file;
            const QString patch = tree.write("patch", patchOfCommands("", payload));
            QVERIFY(!PatchFile::read(patch, reading, file));
            QCOMPARE(file.payload, QByteArrayView(payload));
            QVERIFY(TemporaryTree::contents("/proc/self/maps").contains(tree.path("beside").toUtf8()));
            QVERIFY(QDir(reading.folder).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
            reading.folder = tree.path("none");
            QVERIFY(PatchFile::read(patch, reading, file));
        }
        QVERIFY(!TemporaryTree::contents("/proc/self/maps").contains(tree.path("beside").toUtf8()));
    }

    void everyCutIsRefused()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "old");
        const QByteArray whole = patchOfCommands(R"({"actions":["delete"],"path":"f"})");
        for (qsizetype size = 0; size < whole.size(); ++size) {
            QVariantList log;
            QVERIFY2(!applyIn(tree, whole.first(size), log), qPrintable(QString::number(size)));
        }
        QCOMPARE(tree.read("new.app/f"), "old");
    }

    void missingItems()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "old");
        const QString old = tree.path("old.app");
        const QString built = tree.path("new.app");

        QVariantList log;
        QVERIFY(!ZELUpdaterApplyPatch(old, QString(), "p", log));
        QCOMPARE(descriptions(log), QStringList{"Missing one or more paths"});

        log.clear();
        QVERIFY(!ZELUpdaterApplyPatch(old, built, tree.path("none"), log));
        QCOMPARE(descriptions(log), QStringList(Opening) << "Patch failed");
        QCOMPARE(log[2].toMap()["exists"], QVariant(false));
        QCOMPARE(log[3].toMap()["path"], QVariant(built));

        log.clear();
        QVERIFY(!ZELUpdaterApplyPatch(tree.path("gone.app"), built, "p", log));
        QCOMPARE(log.size(), 4); // the copy error is the last entry
        QVERIFY(descriptions(log).last().startsWith("Error copying old app: "));
        QCOMPARE(log[3].toMap()["path"], QVariant(built));
        QVERIFY(!QFileInfo::exists(built)); // an earlier result is never taken for this one's
    }

    void bundlesMustNotContainEachOther_data()
    {
        QTest::addColumn<QString>("old");
        QTest::addColumn<QString>("built");
        const auto row = [](const char *old, const char *built) {
            QTest::addRow("%s to %s", old, built) << old << built;
        };
        for (const char *path :
             {"old.app", "x/../old.app/", "old.app/sub/new.app", ".", "x/../old.app/new/", ""})
            row("old.app", path);
        row(".", "new.app");
        row("./old.app/../old.app", "old.app/new.app/.");
        row("old.app/d/..", "old.app/d");
        row("link", "old.app/new.app");
        row("old.app/d", "link/.");
    }

    void bundlesMustNotContainEachOther()
    {
        QFETCH(QString, old);
        QFETCH(QString, built);
        const TemporaryTree tree;
        tree.write("old.app/f", "old");
        tree.directory("old.app/d");
        tree.link("link", "old.app");
        tree.directory("x");
        const QString patch = tree.write("patch", patchOfCommands(""));
        const QString before = QDir::currentPath();
        QDir::setCurrent(tree.path());
        QVariantList log;
        const bool relative = ZELUpdaterApplyPatch(old, built, patch, log);
        const bool absolute = ZELUpdaterApplyPatch(tree.path(old), tree.path() + u'/' + built, patch, log);
        QDir::setCurrent(before);
        QVERIFY(!relative);
        QVERIFY(!absolute);
        QCOMPARE(descriptions(log).filter("must not contain each other").size(), 2);
        QCOMPARE(listing(tree.path("old.app")), (QStringList{"d/", "f = old"}));
    }

    void aLinkAtTheNewPathIsReplaced_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("built");
        for (const char *target : {"other", "old.app", "none"}) {
            QTest::addRow("link to %s", target) << target << "new.app";
            QTest::addRow("link to %s, with a slash", target) << target << "new.app/";
        }
    }

    void aLinkAtTheNewPathIsReplaced()
    {
        QFETCH(QString, target);
        QFETCH(QString, built);
        const TemporaryTree tree;
        tree.write("old.app/f", "old");
        tree.write("other/kept", "kept");
        tree.link("new.app", target);
        QVariantList log;
        QVERIFY(ZELUpdaterApplyPatch(tree.path("old.app"), tree.path() + u'/' + built,
                                     tree.write("patch", patchOfCommands("")), log));
        QVERIFY(!QFileInfo(tree.path("new.app")).isSymLink());
        QCOMPARE(tree.read("new.app/f"), "old");
        QCOMPARE(tree.read("old.app/f"), "old");
        QCOMPARE(tree.read("other/kept"), "kept");
    }

    void errorNames()
    {
        const TemporaryTree tree;
        const LogCapture capture;
        apply(tree,
              patchOfCommands(command("delete-symlink", "none") + ','
                              + command("create-symlink", "Contents/link", R"(,"symlink":"x")") + ','
                              + command("delete-symlink", "Contents/file/x")));
        QCOMPARE(capture.lines("zel.system"), (QStringList{"ENOENT", "ENOENT", "EEXIST", "ENOTDIR"}));
    }

    void testPatchComparesFiles_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<QStringList>("differing");

        const auto row = [](const char *name, const QByteArray &commands, const QStringList &differing) {
            QTest::newRow(name) << commands << differing;
        };
        const auto add = [](const char *path) { return command("add", path, slice(0, 3)); };
        row("equal", "", {});
        row("file differs, hidden one is missing", add("f") + ',' + command("delete", ".h"), {".h", "f"});
        row("file too many", add("g"), {});
        row("link instead of the file is passed over",
            command("delete", "f") + ',' + command("create-symlink", "f", R"(,"symlink":"x")"), {});
        row("file instead of a folder is passed over", command("delete", "d") + ',' + add("d"), {});
        row("empty file is missing", command("delete", "empty"), {});
    }

    void testPatchComparesFiles()
    {
        QFETCH(QByteArray, commands);
        QFETCH(QStringList, differing);
        const TemporaryTree tree;
        const LogCapture capture;
        tree.write("old.app/f", "content");
        tree.write("old.app/.h", "content");
        tree.write("old.app/empty", "");
        tree.directory("old.app/d");
        const QString old = tree.path("old.app");
        QCOMPARE(ZELUpdaterTestPatch(old, tree.path("new.app"),
                                     tree.write("patch", patchOfCommands(commands)), old),
                 differing.isEmpty());
        const QStringList logged = capture.lines("zel.updater", QtDebugMsg);
        QStringList named;
        for (qsizetype at = logged.indexOf("hash error"); at >= 0; at = logged.indexOf("hash error", at + 1))
            named.append(logged.value(at + 1));
        named.sort();
        QCOMPARE(named, differing);
        QCOMPARE(capture.lines("zel.system").last(),
                 differing.isEmpty() ? "Successfully patched" : "Patching failed");
    }
};

QTEST_GUILESS_MAIN(tst_ApplyPatch)
#include "tst_ApplyPatch.moc"
