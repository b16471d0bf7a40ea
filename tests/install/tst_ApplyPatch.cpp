#include "bsdiff2.h"
#include "DDLog.h"
#include "LogCapture.h"
#include "MD5FromData.h"
#include "PatchBuilder.h"
#include "TemporaryTree.h"
#include "ZELUpdaterApplyPatch.h"
#include "ZELUpdaterTestPatch.h"

#include <sys/stat.h>

namespace {

// One line an entry: its description, and the file that it names.
QStringList descriptions(const QVariantList &log)
{
    QStringList result;
    for (const QVariant &entry : log) {
        const QVariantMap keys = entry.toMap();
        result.append(keys[QStringLiteral("description")].toString());
        if (keys.contains(QStringLiteral("file")))
            result.last() += QLatin1String(": ") + keys[QStringLiteral("file")].toString();
    }
    return result;
}

const QStringList Opening{QStringLiteral("Starting Patch"), QStringLiteral("Old file"),
                          QStringLiteral("Patch file"), QStringLiteral("New file"),
                          QStringLiteral("chmod'ing new file")};

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
            items.append(name + QLatin1String(" -> ") + QString::fromUtf8(TemporaryTree::linkTarget(path)));
        else if (files.fileInfo().isDir())
            items.append(name + u'/');
        else
            items.append(name + QLatin1String(" = ") + QString::fromUtf8(TemporaryTree::contents(path)));
    }
    items.sort();
    return items;
}

QByteArray delta(const QByteArray &from, const QByteArray &to)
{
    const TemporaryTree tree;
    const auto bytes = bsdiff2(tree.write(QStringLiteral("a"), from).toStdString(),
                               tree.write(QStringLiteral("b"), to).toStdString());
    return QByteArray(reinterpret_cast<const char *>(bytes->data()), qsizetype(bytes->size()));
}

// Makes an empty file of any file.
const QByteArray DeltaToNothing = "BSDIFN40" + QByteArray(24, '\0');

} // namespace

class tst_ApplyPatch : public QObject
{
    Q_OBJECT

    // An old bundle whose path holds all that a shell would trip over.
    QString oldBundle(const TemporaryTree &tree) const
    {
        const QString name = QStringLiteral("it's $HOME; \"old\" (1) & Größe\n.app");
        tree.write(name + QStringLiteral("/Contents/file"), "old file");
        tree.write(name + QStringLiteral("/Contents/sub/deep"), "deep");
        tree.link(name + QStringLiteral("/Contents/link"), QStringLiteral("file"));
        tree.link(name + QStringLiteral("/Contents/folderlink"), QStringLiteral("sub"));
        tree.link(name + QStringLiteral("/Contents/out"), QStringLiteral("../../outside"));
        tree.link(name + QStringLiteral("/Contents/absolute"), tree.path(QStringLiteral("outside")));
        tree.link(name + QStringLiteral("/Contents/circle"), QStringLiteral("circle"));
        tree.write(QStringLiteral("outside/treasure"), "treasure");
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
        const QString built = tree.path(QStringLiteral("new $(touch x).app"));
        tree.write(QStringLiteral("new $(touch x).app/leftover"), "from before");
        outcome.before = listing(old);
        outcome.applied =
            ZELUpdaterApplyPatch(old, built, tree.write(QStringLiteral("patch"), patch), outcome.log);
        outcome.after = listing(built);
        if (listing(old) != outcome.before)
            qFatal("the old bundle was changed");
        if (tree.read(QStringLiteral("outside/treasure")) != "treasure"
            || QDir(tree.path(QStringLiteral("outside"))).count() != 3)
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

        const auto row = [](const char *name, const char *commands, const char *gone, const char *there,
                            const char *entry = "") {
            QTest::newRow(name) << QByteArray(commands) << QString::fromUtf8(gone) << QString::fromUtf8(there)
                                << QString::fromUtf8(entry);
        };
        row("no commands", "", "", "");
        row("unknown action", R"({"actions":["explode"],"path":"../x"})", "", "");
        row("no actions", R"({"path":"Contents/file"}, 7, null, {"actions":"delete","path":"Contents/file"})",
            "", "");
        row("delete file", R"({"actions":["delete"],"path":"Contents/file"})", "Contents/file = old file",
            "");
        row("delete folder", R"({"actions":["delete"],"path":"Contents/sub"})", "Contents/sub/deep = deep",
            "");
        row("delete of a link leaves its target", R"({"actions":["delete"],"path":"Contents/out"})",
            "Contents/out -> ../../outside", "");
        row("a slash behind a link means the link", R"({"actions":["delete"],"path":"Contents/folderlink/"})",
            "Contents/folderlink -> sub", "Contents/sub/deep = deep");
        row("delete below a file", R"({"actions":["delete"],"path":"Contents/file/x"})", "", "");
        row("delete of nothing", R"({"actions":["delete"],"path":"Contents/none/at/all"})", "", "");
        row("add", R"({"actions":["add"],"path":"Contents/new/file","position":3,"length":4})", "",
            "Contents/new/file = load");
        row("add nothing", R"({"actions":["add"],"path":"Contents/empty","position":7,"length":0})", "",
            "Contents/empty = ");
        row("add replaces", R"({"actions":["add"],"path":"Contents/file","position":0,"length":3})",
            "Contents/file = old file", "Contents/file = pay");
        row("add replaces a link",
            R"({"actions":["add"],"path":"Contents/absolute","position":0,"length":3})", "",
            "Contents/absolute = pay");
        row("add through a link that stays inside",
            R"({"actions":["add"],"path":"Contents/folderlink/x","position":0,"length":3})", "",
            "Contents/sub/x = pay");
        row("numbers as text", R"({"actions":["add"],"path":"t","position":" 3","length":"4th"})", "",
            "t = load");
        row("add directory", R"({"actions":["adddirectory"],"path":"Contents/a/b/c"})", "",
            "Contents/a/b/c/");
        row("add directory over a file", R"({"actions":["adddirectory"],"path":"Contents/file"})", "",
            "Contents/file = old file");
        row("delete link", R"({"actions":["delete-symlink"],"path":"Contents/link"})",
            "Contents/link -> file", "");
        row("only the first action counts",
            R"({"actions":["create-symlink","delete-symlink"],"path":"Contents/link","symlink":"sub"})",
            "Contents/link -> file", "");
        row("delete link that is not there", R"({"actions":["delete-symlink"],"path":"Contents/none"})", "",
            "", "Error deleting symlink: Contents/none");
        row("create link", R"({"actions":["create-symlink"],"path":"Contents/l","symlink":"/any/where"})", "",
            "Contents/l -> /any/where");
        row("create link over a link",
            R"({"actions":["create-symlink"],"path":"Contents/link","symlink":"sub"})", "",
            "Contents/link -> file", "Error creating symlink: Contents/link");
        row("file becomes folder",
            R"({"actions":["delete"],"path":"Contents/file"},{"actions":["add"],"path":"Contents/file/x","position":0,"length":3})",
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
        QCOMPARE(descriptions(outcome.log), expected << QStringLiteral("Patch succeeded"));
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

        const auto add = [](const char *name, const char *path, const char *entry = "") {
            QTest::newRow(name) << "{\"actions\":[\"add\"],\"path\":\"" + QByteArray(path)
                    + "\",\"position\":0,\"length\":3}"
                                << QString::fromUtf8(entry);
        };
        add("empty path", "");
        add("the root itself", "./.");
        add("absolute path", "/tmp/x");
        add("parent", "../outside/x");
        add("parent that stays inside", "Contents/../x");
        add("NUL in a path", "Contents/x\\u0000y");
        add("through a relative link", "Contents/out/x");
        add("through an absolute link", "Contents/absolute/x");
        add("through a circle", "Contents/circle/x");
        add("where a folder is", "Contents/sub", "Error creating file: Contents/sub");
        add("below a file", "Contents/file/x", "Error creating file: Contents/file/x");

        const auto other = [](const char *name, const char *commands, const char *entry = "") {
            QTest::newRow(name) << QByteArray(commands) << QString::fromUtf8(entry);
        };
        other("path is missing", R"({"actions":["delete"]})");
        other("delete outside", R"({"actions":["delete"],"path":"Contents/out/treasure"})");
        other("delete the parent", R"({"actions":["delete"],"path":".."})");
        other("directory outside", R"({"actions":["adddirectory"],"path":"Contents/absolute/new"})");
        other("link outside", R"({"actions":["create-symlink"],"path":"Contents/out/l","symlink":"x"})");
        other("unlink outside", R"({"actions":["delete-symlink"],"path":"Contents/out/treasure"})");
        other(
            "through a link made before",
            R"({"actions":["create-symlink"],"path":"up","symlink":".."},{"actions":["delete"],"path":"up/outside"})");
        // What lies at 7 is sound: only its stated place is wrong.
        for (const char *slice :
             {R"("position":-1,"length":33)", R"("position":7,"length":-1)", R"("position":7,"length":33)",
              R"("position":40,"length":0)", R"("position":7,"length":9223372036854775807)",
              R"("position":9223372036854775807,"length":1)"}) {
            other(slice,
                  (R"({"actions":["patch"],"path":"Contents/file","hash":"",)" + QByteArray(slice) + '}')
                      .constData(),
                  "Error patching file: Contents/file");
        }
        other("file outside the payload", R"({"actions":["add"],"path":"x","position":8,"length":32})",
              "Error creating file: x");
        const QByteArray sound = R"("position":7,"length":32,"hash":"")";
        other("delta of a file outside",
              (R"({"actions":["patch"],"path":"Contents/out/treasure",)" + sound + '}').constData());
        other(
            "delta through a link to a file outside",
            (R"({"actions":["create-symlink"],"path":"l","symlink":"../outside/treasure"},{"actions":["patch"],"path":"l",)"
             + sound + '}')
                .constData());
        other(
            "delta from a file outside",
            (R"({"actions":["delete-symlink"],"path":"Contents/out"},{"actions":["adddirectory"],"path":"Contents/out"},{"actions":["patch"],"path":"Contents/out/treasure",)"
             + sound + '}')
                .constData(),
            "Error patching file: Contents/out/treasure");
        other("delta that is none",
              R"({"actions":["patch"],"path":"Contents/file","position":0,"length":7,"hash":""})",
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
        QStringList expected = Opening;
        if (!entry.isEmpty())
            expected.append(entry);
        QCOMPARE(descriptions(outcome.log), expected << QStringLiteral("Patch failed"));
        QVERIFY(outcome.after.contains(QStringLiteral("Contents/file = old file")));
        QVERIFY(!outcome.after.contains(QStringLiteral("leftover = from before")));
    }

    void deltas_data()
    {
        QTest::addColumn<QByteArray>("from");
        QTest::addColumn<QByteArray>("to");
        QTest::addColumn<QString>("hash"); // null: the key is left out
        QTest::addColumn<bool>("succeeds");

        const QByteArray whole(65536, 'x');
        QTest::newRow("right hash") << QByteArray("old") << QByteArray("new")
                                    << MD5FromData(QByteArray("new")) << true;
        QTest::newRow("wrong hash") << QByteArray("old") << QByteArray("new")
                                    << MD5FromData(QByteArray("old")) << false;
        QTest::newRow("upper case") << QByteArray("old") << QByteArray("new")
                                    << MD5FromData(QByteArray("new")).toUpper() << false;
        QTest::newRow("missing hash") << QByteArray("old") << QByteArray("new") << QString() << false;
        QTest::newRow("whole chunks") << QByteArray("old") << whole << QStringLiteral("") << true;
        QTest::newRow("whole chunks, missing hash") << QByteArray("old") << whole << QString() << false;
        QTest::newRow("to empty") << QByteArray("old") << QByteArray("") << QStringLiteral("") << true;
        QTest::newRow("from empty") << QByteArray("") << QByteArray("new") << MD5FromData(QByteArray("new"))
                                    << true;
    }

    void deltas()
    {
        QFETCH(QByteArray, from);
        QFETCH(QByteArray, to);
        QFETCH(QString, hash);
        QFETCH(bool, succeeds);
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), from, 0444);
        const QByteArray payload = delta(from, to);
        const QByteArray hashKey = hash.isNull() ? QByteArray() : ",\"hash\":\"" + hash.toUtf8() + '"';
        const QString patch =
            tree.write(QStringLiteral("patch"),
                       patchOfCommands(R"({"actions":["patch"],"path":"f","position":0,"length":)"
                                           + QByteArray::number(payload.size()) + hashKey + '}',
                                       payload));

        QVariantList log;
        const bool applied = ZELUpdaterApplyPatch(tree.path(QStringLiteral("old.app")),
                                                  tree.path(QStringLiteral("new.app")), patch, log);
        QCOMPARE(applied, succeeds);
        QCOMPARE(tree.read(QStringLiteral("new.app/f")), to);
        QCOMPARE(tree.read(QStringLiteral("old.app/f")), from);
        // The delta's result keeps the file, and with it the mode of the permission step.
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("new.app/f"))), 0755);
        if (!succeeds) {
            const QVariantMap entry = log.at(log.size() - 2).toMap();
            QCOMPARE(entry[QStringLiteral("description")].toString(), QStringLiteral("Hash error"));
            QCOMPARE(entry[QStringLiteral("original")].toByteArray(), from);
            QCOMPARE(entry[QStringLiteral("new")].toByteArray(), to);
        }
    }

    void failedDeltaLogsWhatCouldBeRead_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<bool>("hasOriginal");
        QTest::addColumn<bool>("hasNew");

        const QByteArray patch = R"({"actions":["patch"],"path":"f","position":0,"length":3,"hash":"x"})";
        const QByteArray patchOther =
            R"({"actions":["patch"],"path":"g","position":0,"length":3,"hash":"x"})";
        QTest::newRow("both, empty ones too") << patch << true << true;
        QTest::newRow("new is gone") << R"({"actions":["delete"],"path":"f"},)" + patch << true << false;
        QTest::newRow("original never was")
            << R"({"actions":["add"],"path":"g","position":0,"length":0},)" + patchOther << false << true;
        QTest::newRow("neither") << patchOther << false << false;
    }

    void failedDeltaLogsWhatCouldBeRead()
    {
        QFETCH(QByteArray, commands);
        QFETCH(bool, hasOriginal);
        QFETCH(bool, hasNew);
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), "");
        QVariantList log;
        QVERIFY(!ZELUpdaterApplyPatch(tree.path(QStringLiteral("old.app")),
                                      tree.path(QStringLiteral("new.app")),
                                      tree.write(QStringLiteral("patch"), patchOfCommands(commands)), log));
        const QVariantMap entry = log.at(log.size() - 2).toMap();
        QCOMPARE(entry[QStringLiteral("description")].toString(), QStringLiteral("Error patching file"));
        QCOMPARE(entry.contains(QStringLiteral("original")), hasOriginal);
        QCOMPARE(entry.contains(QStringLiteral("new")), hasNew);
    }

    void modes()
    {
        const mode_t before = ::umask(027);
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/kept"), "x", 0600);
        tree.write(QStringLiteral("old.app/replaced"), "x", 0755);
        QVariantList log;
        ZELUpdaterApplyPatch(
            tree.path(QStringLiteral("old.app")), tree.path(QStringLiteral("new.app")),
            tree.write(QStringLiteral("patch"),
                       patchOfCommands(R"({"actions":["add"],"path":"replaced","position":0,"length":1},
                                                           {"actions":["add"],"path":"added","position":0,"length":1})")),
            log);
        ::umask(before);
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("new.app/kept"))), 0755);
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("new.app/replaced"))), 0640);
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("new.app/added"))), 0640);
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("old.app/kept"))), 0600);
    }

    void leavesAMarker()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), "x");
        const QString patch = tree.write(QStringLiteral("patch"), patchOfCommands(""));
        const QByteArray before = qgetenv("TMPDIR");
        qputenv("TMPDIR", tree.directory(QStringLiteral("tmp")).toUtf8());
        QVariantList log;
        const bool applied = ZELUpdaterApplyPatch(tree.path(QStringLiteral("old.app")),
                                                  tree.path(QStringLiteral("new.app")), patch, log);
        before.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", before);
        QVERIFY(applied);
        const QStringList left = QDir(tree.path(QStringLiteral("tmp"))).entryList({QStringLiteral("*-*")});
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
        row("no length", patchFile("", manifest, payload), false);
        row("negative length", patchFile("-5", manifest, payload), false);
        row("length past the end", patchFile("9999", manifest, payload), false);
        row("length beyond 64 bits", patchFile("99999999999999999999", manifest, payload), false);
        row("empty file", "", false);
        row("short header", size, false);
        row("manifest is not xz", patchFile("3", "abc", payload), false);
        row("manifest is not JSON", patchOf("no json"), true);
        row("manifest is an array", patchOf("[1]"), true);
        row("commands are no array", patchOf(R"({"commands":{"actions":["delete"]}})"), true);
        row("no payload", patchFile(size, manifest, ""), false);
        row("payload is cut", patchFile(size, manifest, payload.chopped(1)), false);
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
        QCOMPARE(descriptions(outcome.log).last(),
                 succeeds ? QStringLiteral("Patch succeeded") : QStringLiteral("Patch failed"));
        QCOMPARE(outcome.after, outcome.before);
    }

    void everyCutIsRefused()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), "old");
        const QByteArray whole = patchOfCommands(R"({"actions":["delete"],"path":"f"})");
        for (qsizetype size = 0; size < whole.size(); ++size) {
            QVariantList log;
            QVERIFY2(!ZELUpdaterApplyPatch(tree.path(QStringLiteral("old.app")),
                                           tree.path(QStringLiteral("new.app")),
                                           tree.write(QStringLiteral("patch"), whole.first(size)), log),
                     qPrintable(QString::number(size)));
        }
        QCOMPARE(tree.read(QStringLiteral("new.app/f")), QByteArray("old"));
    }

    void missingItems()
    {
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), "old");
        const QString old = tree.path(QStringLiteral("old.app"));
        const QString built = tree.path(QStringLiteral("new.app"));

        QVariantList log;
        QVERIFY(!ZELUpdaterApplyPatch(old, QString(), QStringLiteral("p"), log));
        QCOMPARE(descriptions(log), QStringList{QStringLiteral("Missing one or more paths")});

        log.clear();
        QVERIFY(!ZELUpdaterApplyPatch(old, built, tree.path(QStringLiteral("none")), log));
        QCOMPARE(descriptions(log), QStringList(Opening) << QStringLiteral("Patch failed"));
        QCOMPARE(log[2].toMap()[QStringLiteral("exists")], QVariant(false));
        QCOMPARE(log[3].toMap()[QStringLiteral("path")], QVariant(built));

        log.clear();
        QVERIFY(
            !ZELUpdaterApplyPatch(tree.path(QStringLiteral("gone.app")), built, QStringLiteral("p"), log));
        QCOMPARE(log.size(), 4); // the copy error is the last entry
        QVERIFY(descriptions(log).last().startsWith(QStringLiteral("Error copying old app: ")));
        QCOMPARE(log[3].toMap()[QStringLiteral("path")], QVariant(built));
        QVERIFY(!QFileInfo::exists(built)); // an earlier result is never taken for this one's
    }

    void bundlesMustNotContainEachOther_data()
    {
        QTest::addColumn<QString>("built");
        QTest::newRow("the same") << QStringLiteral("old.app");
        QTest::newRow("the same, spelled differently") << QStringLiteral("x/../old.app/");
        QTest::newRow("inside") << QStringLiteral("old.app/sub/new.app");
        QTest::newRow("around") << QString(u'.');
    }

    void bundlesMustNotContainEachOther()
    {
        QFETCH(QString, built);
        const TemporaryTree tree;
        tree.write(QStringLiteral("old.app/f"), "old");
        tree.directory(QStringLiteral("x"));
        QVariantList log;
        QVERIFY(!ZELUpdaterApplyPatch(tree.path(QStringLiteral("old.app")), tree.path(built),
                                      QStringLiteral("p"), log));
        QCOMPARE(tree.read(QStringLiteral("old.app/f")), QByteArray("old"));
    }

    void errorNames()
    {
        const TemporaryTree tree;
        const LogCapture capture;
        apply(tree, patchOfCommands(R"({"actions":["delete-symlink"],"path":"none"},
                                       {"actions":["create-symlink"],"path":"Contents/link","symlink":"x"},
                                       {"actions":["delete-symlink"],"path":"Contents/file/x"})"));
        QCOMPARE(capture.lines("zel.system"),
                 (QStringList{QStringLiteral("ENOENT"), QStringLiteral("ENOENT"), QStringLiteral("EEXIST"),
                              QStringLiteral("ENOTDIR")}));
    }

    void testPatchComparesFiles_data()
    {
        QTest::addColumn<QByteArray>("commands");
        QTest::addColumn<QStringList>("differing");

        const auto row = [](const char *name, const char *commands, const QStringList &differing) {
            QTest::newRow(name) << QByteArray(commands) << differing;
        };
        row("equal", "", {});
        row("files differ, one of them hidden",
            R"({"actions":["add"],"path":"f","position":0,"length":3},{"actions":["add"],"path":".h","position":0,"length":3})",
            {QStringLiteral(".h"), QStringLiteral("f")});
        row("file is missing", R"({"actions":["delete"],"path":"f"})", {QStringLiteral("f")});
        row("file too many", R"({"actions":["add"],"path":"g","position":0,"length":3})", {});
        row("link instead of the file is passed over",
            R"({"actions":["delete"],"path":"f"},{"actions":["create-symlink"],"path":"f","symlink":"x"})",
            {});
        row("file instead of a folder is passed over",
            R"({"actions":["delete"],"path":"d"},{"actions":["add"],"path":"d","position":0,"length":3})",
            {});
        row("empty file is missing", R"({"actions":["delete"],"path":"empty"})", {});
    }

    void testPatchComparesFiles()
    {
        QFETCH(QByteArray, commands);
        QFETCH(QStringList, differing);
        const TemporaryTree tree;
        const LogCapture capture;
        tree.write(QStringLiteral("old.app/f"), "content");
        tree.write(QStringLiteral("old.app/.h"), "content");
        tree.write(QStringLiteral("old.app/empty"), "");
        tree.directory(QStringLiteral("old.app/d"));
        const QString old = tree.path(QStringLiteral("old.app"));
        QCOMPARE(ZELUpdaterTestPatch(old, tree.path(QStringLiteral("new.app")),
                                     tree.write(QStringLiteral("patch"), patchOfCommands(commands)), old),
                 differing.isEmpty());
        DDLog::flushLog();
        const QStringList logged = capture.lines("zel.updater", QtDebugMsg);
        QStringList named;
        for (qsizetype at = logged.indexOf(QStringLiteral("hash error")); at >= 0;
             at = logged.indexOf(QStringLiteral("hash error"), at + 1))
            named.append(logged.value(at + 1));
        named.sort();
        QCOMPARE(named, differing);
        QCOMPARE(capture.lines("zel.system").last(),
                 differing.isEmpty() ? QStringLiteral("Successfully patched")
                                     : QStringLiteral("Patching failed"));
    }
};

QTEST_GUILESS_MAIN(tst_ApplyPatch)
#include "tst_ApplyPatch.moc"
