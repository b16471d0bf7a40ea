#include "install/MD5FromData.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/LogCapture.h"
#include "support/PatchBuilder.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryTree.h"

#include <QCryptographicHash>
#include <QRegularExpression>
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

// Makes an empty file of any file.
const QByteArray DeltaToNothing = "BSDIFN40" + QByteArray(24, '\0');

} // namespace

class tst_ApplyPatch : public QObject
{
    Q_OBJECT

    QVariantList m_log;

    // Applies a patch to what the tree holds as old.app.
    bool applyIn(const TemporaryTree &tree, const QByteArray &patch)
    {
        m_log.clear();
        return ZELUpdaterApplyPatch(tree.path("old.app"), tree.path("new.app"), tree.write("patch", patch),
                                    m_log);
    }

    QVariantMap entryBeforeTheEnd() const { return m_log.at(m_log.size() - 2).toMap(); }

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
        QStringList before;
        QStringList after;
    };

    Outcome apply(const TemporaryTree &tree, const QByteArray &patch)
    {
        Outcome outcome;
        const QString old = oldBundle(tree);
        const QString built = tree.path("new $(touch x).app");
        tree.write("new $(touch x).app/leftover", "from before");
        outcome.before = TemporaryTree::listing(old);
        m_log.clear();
        outcome.applied = ZELUpdaterApplyPatch(old, built, tree.write("patch", patch), m_log);
        outcome.after = TemporaryTree::listing(built);
        if (TemporaryTree::listing(old) != outcome.before)
            qFatal("the old bundle was changed");
        if (tree.read("outside/treasure") != "treasure" || QDir(tree.path("outside")).count() != 3)
            qFatal("something outside was touched");
        return outcome;
    }

private slots:
    void commands()
    {
        const auto add = [](const char *path, qint64 position, qint64 length) {
            return command("add", path, slice(position, length));
        };
        // Lines of the bundle's listing: those that must be gone begin with "-", those that must have come
        // with "+". Without any, nothing must have changed.
        const std::tuple<const char *, QByteArray, QString> cases[] = {
            {"unknown action", command("explode", "../x"), ""},
            {"no actions",
             R"({"path":"Contents/file"}, 7, null, {"actions":"delete","path":"Contents/file"})", ""},
            {"delete folder", command("delete", "Contents/sub"), "-Contents/sub/deep = deep"},
            {"delete of a link leaves its target", command("delete", "Contents/out"),
             "-Contents/out -> ../../outside"},
            {"a slash behind a link means the link", command("delete", "Contents/folderlink/"),
             "-Contents/folderlink -> sub"},
            {"delete below a file", command("delete", "Contents/file/x"), ""},
            {"add", add("Contents/new/file", 3, 4), "+Contents/new/file = load"},
            {"add nothing", add("Contents/empty", 7, 0), "+Contents/empty = "},
            {"add replaces", add("Contents/file", 0, 3), "-Contents/file = old file\n+Contents/file = pay"},
            {"add replaces a link", add("Contents/absolute", 0, 3), "+Contents/absolute = pay"},
            {"add through a link that stays inside", add("Contents/folderlink/x", 0, 3),
             "+Contents/sub/x = pay"},
            {"numbers as text", command("add", "t", R"(,"position":" 3","length":"4th")"), "+t = load"},
            {"add directory", command("adddirectory", "Contents/a/b/c"), "+Contents/a/b/c/"},
            {"add directory over a file", command("adddirectory", "Contents/file"), ""},
            {"only the first action counts",
             R"({"actions":["create-symlink","delete-symlink"],"path":"Contents/link","symlink":"sub"})",
             "-Contents/link -> file"},
            {"create link", command("create-symlink", "Contents/l", R"(,"symlink":"/any/where")"),
             "+Contents/l -> /any/where"},
            {"file becomes folder", command("delete", "Contents/file") + ',' + add("Contents/file/x", 0, 3),
             "-Contents/file = old file\n+Contents/file/x = pay"},
        };
        for (const auto &[name, commands, changes] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const Outcome outcome = apply(tree, patchOfCommands(commands));
            QVERIFY(outcome.applied);
            QCOMPARE(descriptions(m_log), QStringList(Opening) << "Patch succeeded");
            for (const QString &line : changes.split(u'\n', Qt::SkipEmptyParts))
                QVERIFY2(outcome.after.contains(line.mid(1)) == line.startsWith(u'+'), qPrintable(line));
            QCOMPARE(outcome.after == outcome.before, changes.isEmpty());
        }
    }

    void refusals()
    {
        const QString outside = "Error: path is not inside the bundle: ";
        const QString treasure = outside + "Contents/out/treasure";
        const auto delta = [](const char *path) {
            return command("patch", path, slice(7, 32) + R"(,"hash":"")");
        };
        QList<std::tuple<QByteArray, QByteArray, QString>> cases{
            {"a folder", command("add", "Contents/sub", slice(0, 3)), "Error creating file: Contents/sub"},
            {"below a file", command("add", "Contents/file/x", slice(0, 3)),
             "Error creating file: Contents/file/x"},
            {"path is missing", R"({"actions":["delete"]})", outside},
            {"delete outside", command("delete", "Contents/out/treasure"), treasure},
            {"unlink outside", command("delete-symlink", "Contents/out/treasure"), treasure},
            {"through a link made before",
             command("create-symlink", "up", R"(,"symlink":"..")") + ',' + command("delete", "up/outside"),
             outside + "up/outside"},
            {"file outside the payload", command("add", "x", slice(8, 32)), "Error creating file: x"},
            {"delta of a file outside", delta("Contents/out/treasure"), treasure},
            {"delta through a link to a file outside",
             command("create-symlink", "l", R"(,"symlink":"../outside/treasure")") + ',' + delta("l"),
             outside + "l"},
            {"delta from a file outside",
             command("delete-symlink", "Contents/out") + ',' + command("adddirectory", "Contents/out") + ','
                 + delta("Contents/out/treasure"),
             "Error patching file: Contents/out/treasure"},
            {"delta that is none", command("patch", "Contents/file", slice(0, 7) + R"(,"hash":"")"),
             "Error patching file: Contents/file"},
        };
        for (const char *path : {"", "./.", "/tmp/x", "../outside/x", "Contents/x\\u0000y", "Contents/out/x",
                                 "Contents/absolute/x", "Contents/circle/x"}) {
            const QString named = QString(path).replace("\\u0000", QChar(u'\0'));
            cases.append({path, command("add", path, slice(0, 3)), outside + named});
        }
        // What lies at 7 is sound: only its stated place is wrong.
        constexpr qint64 max = std::numeric_limits<qint64>::max();
        for (const auto &[position, length] : {std::pair(-1ll, 33ll), {7, -1}, {40, 0}, {7, max}, {max, 1}}) {
            const QByteArray wrong = slice(position, length);
            cases.append({wrong, command("patch", "Contents/file", wrong + R"(,"hash":"")"),
                          "Error patching file: Contents/file"});
        }
        for (const auto &[name, commands, entry] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            // What follows a refused command is not performed.
            const QByteArray all = commands + ',' + command("delete", "Contents/file");
            const Outcome outcome = apply(tree, patchOfCommands(all, "payload" + DeltaToNothing));
            QVERIFY(!outcome.applied);
            QCOMPARE(descriptions(m_log), QStringList(Opening) << entry << "Patch failed");
            QVERIFY(outcome.after.contains("Contents/file = old file"));
            QVERIFY(!outcome.after.contains("leftover = from before"));
        }
    }

    // With links in the bundle and paths in the manifest that name each other: each command is one path,
    // walked as "add".
    void walks()
    {
        const auto down = [](int times) { return QString("d/").repeated(times); };
        const auto around = [](int times) { return QString("d/../").repeated(times); };
        const QString longest = down(120) + QString("./").repeated(1927) + 'x';
        QStringList chain{"l0>d"};
        for (int i = 1; i <= 40; ++i)
            chain.append(QString("l%1>l%2").arg(i).arg(i - 1));
        const QStringList none;
        // The links (path>target), the path, and where it leads; empty where the path is refused.
        const std::tuple<const char *, QStringList, QString, QString> cases[] = {
            {"as long as a path may be", none, longest, down(120) + 'x'},
            {"a byte longer", none, '/' + longest.mid(1) + 'x', ""},
            {"as deep as a file may be", none, down(128) + 'x', down(128) + 'x'},
            {"deeper", none, down(129) + 'x', ""},
            {"deeper, through a link", QStringList("l>" + down(64)), "l/" + down(65) + 'x', ""},
            {"up through a link", {"d/l>../e/../d/f"}, "d/l/x", "d/f/x"},
            {"to the root by a link", {"d/l>.."}, "d/l/x", "x"},
            {"out by way of what is missing", {"l>none/../../x"}, "l/x", ""},
            {"in by way of what is missing", {"l>none/../d"}, "l/x", "d/x"},
            {"through a file", none, "old/../../x", ""},
            {"many names", {"l>" + around(800)}, "l/x", "x"},
            {"too many names", {"l>" + around(800), "k>l/l/l"}, "k/x", ""},
            {"forty links", chain, "l39/x", "d/x"},
            {"forty-one links", chain, "l40/x", ""},
        };
        for (const auto &[name, links, path, item] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.write("old.app/d/old", "old");
            for (const QString &link : links)
                tree.link("old.app/" + link.section('>', 0, 0), link.section('>', 1));
            const QStringList before = TemporaryTree::listing(tree.path("old.app"));
            const QByteArray patch = patchOfCommands(command("add", path.toUtf8(), slice(0, 3)));
            QCOMPARE(applyIn(tree, patch), !item.isEmpty());
            if (!item.isEmpty())
                QCOMPARE(tree.read("new.app/" + item), "pay");
            else
                QCOMPARE(TemporaryTree::listing(tree.path("new.app")), before);
        }
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
        QVERIFY(!applyIn(tree, patchOfCommands(commands.join(','))));
        QCOMPARE(descriptions(m_log).value(5), "Error: path is not inside the bundle: a/b/treasure");
        QCOMPARE(tree.read("outside/treasure"), "treasure");

        QVERIFY(applyIn(tree, patchOfCommands(commands.first(3).join(','))));
        QCOMPARE(TemporaryTree::listing(tree.path("new.app")),
                 QStringList({"a/", "a/b/", "a/b/c/", "a/b/c/y = pay"}));
    }

    // Each command alone is within bounds.
    void allWalksAreBoundedTogether()
    {
        const TemporaryTree tree;
        tree.directory("old.app/d");
        tree.link("old.app/l", QString("d/../").repeated(800));
        const int commands = int((1 << 20) / 1600) + 1;
        QByteArrayList list(commands, command("delete", "l/x"));
        QVERIFY(applyIn(tree, patchOfCommands(QByteArrayList(list.first(commands / 2)).join(','))));
        QVERIFY(!applyIn(tree, patchOfCommands(list.join(','))));
    }

    void deltas()
    {
        const QByteArray whole(65536, 'x');
        // A hash that is null is left out.
        const std::tuple<const char *, QByteArray, QByteArray, QString, bool> cases[] = {
            {"wrong hash", "old", "new", MD5FromData("old"), false},
            {"missing hash", "old", "new", {}, false},
            {"whole chunks", "old", whole, "", true},
            {"whole chunks, missing hash", "old", whole, {}, false},
            {"to empty", "old", "", "", true},
            {"from empty", "", "new", MD5FromData("new"), true},
        };
        for (const auto &[name, from, to, hash, succeeds] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.write("old.app/f", from, 0444);
            const QByteArray payload = handMadeDelta(to.size(), {0, to.size(), 0}, "", to);
            const QByteArray hashKey = hash.isNull() ? QByteArray() : ",\"hash\":\"" + hash.toUtf8() + '"';
            const QByteArray commands = command("patch", "f", slice(0, payload.size()) + hashKey);
            QCOMPARE(applyIn(tree, patchOfCommands(commands, payload)), succeeds);
            QCOMPARE(tree.read("new.app/f"), to);
            QCOMPARE(tree.read("old.app/f"), from);
            // The delta's result keeps the file, and with it the mode of the permission step.
            QCOMPARE(TemporaryTree::mode(tree.path("new.app/f")), 0755);
            if (!succeeds) {
                const QVariantMap entry = entryBeforeTheEnd();
                QCOMPARE(entry["description"].toString(), "Hash error");
                QCOMPARE(entry["original"].toByteArray(), from);
                QCOMPARE(entry["new"].toByteArray(), to);
            }
        }
    }

    void failedDeltaLogsWhatCouldBeRead()
    {
        const auto patch = [](const char *path) {
            return command("patch", path, slice(0, 3) + R"(,"hash":"x")");
        };
        const std::tuple<const char *, QByteArray, bool, bool> cases[] = {
            {"both, empty ones too", patch("f"), true, true},
            {"new is gone", command("delete", "f") + ',' + patch("f"), true, false},
            {"original never was", command("add", "g", slice(0, 0)) + ',' + patch("g"), false, true},
            {"neither", patch("g"), false, false},
            {"the largest that is logged", patch("1 MiB"), true, true},
            {"larger ones are left out", command("add", "larger", slice(0, 0)) + ',' + patch("larger"), false,
             true},
        };
        for (const auto &[name, commands, hasOriginal, hasNew] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.write("old.app/f", "");
            tree.write("old.app/1 MiB", QByteArray(1 << 20, 'x'));
            tree.write("old.app/larger", QByteArray((1 << 20) + 1, 'x'));
            QVERIFY(!applyIn(tree, patchOfCommands(commands)));
            const QVariantMap entry = entryBeforeTheEnd();
            QCOMPARE(entry["description"].toString(), "Error patching file");
            QCOMPARE(entry.contains("original"), hasOriginal);
            QCOMPARE(entry.contains("new"), hasNew);
        }
    }

    // All folders here hand their group on, as shared ones do.
    void modes()
    {
        const mode_t before = ::umask(027);
        const TemporaryTree tree;
        ::chmod(tree.path().toUtf8().constData(), 02755);
        tree.write("old.app/kept", "x", 0600);
        tree.write("old.app/replaced", "x", 0755);
        tree.write("old.app/special", "x", 06755);
        ::chmod(tree.directory("old.app/folder").toUtf8().constData(), 03777);
        const QByteArray info =
            "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>program</string>"
            "</dict></plist>";
        QByteArray commands = command("add", "Contents/Info.plist", slice(0, info.size()));
        for (const char *path : {"replaced", "added", "Contents/MacOS/program", "program"})
            commands += ',' + command("add", path, slice(0, 1));
        commands += ',' + command("adddirectory", "made");
        const bool applied = applyIn(tree, patchOfCommands(commands, info));
        ::umask(before);
        QVERIFY(applied);
        const std::pair<const char *, int> modes[] = {
            {"new.app", 0755},          {"new.app/kept", 0755},
            {"new.app/replaced", 0640}, {"new.app/added", 0640},
            {"new.app/special", 0755},  {"new.app/folder", 0755},
            {"new.app/made", 0750},     {"new.app/Contents/MacOS/program", 0750},
            {"new.app/program", 0640},  {"old.app/kept", 0600},
            {"old.app/special", 06755},
        };
        for (const auto &[item, mode] : modes) {
            const Case current(item);
            QCOMPARE(QString::number(TemporaryTree::mode(tree.path(item)), 8), QString::number(mode, 8));
        }
    }

    // Format 2. The old bundle has a file of each kind; lines of the new one's listing must be there, or,
    // with "-" before them, must not. Where the patch fails, the entry before the end is the last one.
    void builtFromTheOldBundle()
    {
        const auto sha256 = [](const QByteArray &of) {
            return sha256Key(QCryptographicHash::hash(of, QCryptographicHash::Sha256).toHex());
        };
        const auto size = [](qint64 bytes) { return ",\"size\":" + QByteArray::number(bytes); };
        const auto from = [](const char *path) { return ",\"from\":\"" + QByteArray(path) + '"'; };
        const QByteArray delta = handMadeDelta(7, {3, 4, 0}, QByteArray(3, '\0'), " new");
        const QByteArray payload = delta + "payload";
        const QByteArray whole = slice(delta.size(), 7);
        const QByteArray made = slice(0, delta.size()) + size(7) + sha256("old new");
        const QByteArray same = size(8) + sha256("old file");
        const QString none = "Error creating file: x";
        const QString outside = "Error: path is not inside the bundle: ";
        const std::tuple<const char *, QByteArray, QString, QString> cases[] = {
            {"nothing", "", "f = old file", ""},
            {"the guard alone is passed over", command("delete", ""), "f = old file", outside},
            {"copy", command("copy", "new/x", from("f") + same), "f = old file\nnew/x = old file", ""},
            {"copy of what is gone", command("delete", "f") + ',' + command("copy", "x", from("f") + same),
             "-f = old file\nx = old file", ""},
            {"copy of what was replaced",
             command("add", "f", whole) + ',' + command("copy", "x", from("f") + same),
             "f = payload\nx = old file", ""},
            {"swapped",
             command("copy", "g", from("f") + same) + ','
                 + command("copy", "f", from("g") + size(5) + sha256("other")),
             "f = other\ng = old file", ""},
            {"a delta of another file", command("patch", "x", made + from("f")), "f = old file\nx = old new",
             ""},
            {"a delta of its own file", command("patch", "f", made), "f = old new", ""},
            {"a link is replaced", command("patch", "l", made + from("f")), "f = old file\nl = old new", ""},
            {"through links that stay inside", command("copy", "d/x", from("d/up/l") + same),
             "d/x = old file", ""},
            {"one slice for two",
             command("add", "x", whole + sha256("payload")) + ',' + command("add", "y", whole),
             "x = payload\ny = payload", ""},
            {"copy of nothing", command("copy", "x", from("none") + same), "", none},
            {"copy of a folder", command("copy", "x", from("d") + same), "", none},
            {"copy of a path that leaves", command("copy", "x", from("../outside") + same), "", none},
            {"copy through a link that leaves", command("copy", "x", from("out") + same), "", none},
            {"copy of an absolute path", command("copy", "x", from("/etc/passwd") + same), "", none},
            {"copy of another size", command("copy", "x", from("f") + size(7) + sha256("old fil")), "", none},
            {"copy of other bytes", command("copy", "f", from("f") + size(8) + sha256("old fily")),
             "f = old file", "Hash error: f"},
            {"copy over a folder", command("copy", "d", from("f") + same), "", "Error creating file: d"},
            {"add of other bytes", command("add", "f", whole + sha256("payloaf")), "f = old file",
             "Hash error: f"},
            {"a delta that gives another size",
             command("patch", "f", slice(0, delta.size()) + size(8) + sha256("old new")), "f = old file",
             "Error patching file: f"},
            {"a delta of a path that leaves", command("patch", "x", made + from("out")), "",
             "Error patching file: x"},
            {"a delta with another hash", command("patch", "f", made + R"(,"hash":"")"), "f = old file",
             "Hash error: f"},
            {"mode of a link", command("mode", "l", R"(,"mode":384)"), "", "Error setting mode: l"},
            {"mode of a folder", command("mode", "d", R"(,"mode":384)"), "", "Error setting mode: d"},
            {"mode of nothing", command("mode", "n/x", R"(,"mode":384)"), "", "Error setting mode: n/x"},
        };
        for (const auto &[name, commands, lines, entry] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.write("old.app/f", "old file");
            tree.write("old.app/g", "other");
            tree.link("old.app/l", "f");
            tree.link("old.app/d/up", "..");
            tree.link("old.app/out", "../outside");
            tree.write("outside", "old file");
            QCOMPARE(applyIn(tree, patchOfFormat2(commands, payload)), entry.isEmpty());
            QCOMPARE(descriptions(m_log).value(Opening.size()), entry.isEmpty() ? "Patch succeeded" : entry);
            const QStringList after = TemporaryTree::listing(tree.path("new.app"));
            for (const QString &line : lines.split('\n', Qt::SkipEmptyParts))
                QVERIFY2(after.contains(line.mid(line.startsWith('-'))) != line.startsWith('-'),
                         qPrintable(line));
            QVERIFY(after.filter(QRegularExpression("(^|/)\\.")).isEmpty()); // nothing is left aside
            QCOMPARE(tree.read("outside"), "old file");
            QVERIFY(!applyIn(tree, patchOfCommands(command("delete", "") + ',' + command("delete", "f"))));
            QCOMPARE(tree.read("new.app/f"), "old file"); // as who knows format 1 alone
        }
    }

    void modesOfFormat2()
    {
        const mode_t before = ::umask(027);
        const TemporaryTree tree;
        for (const auto &[name, mode] :
             {std::pair("kept", 0640), {"locked", 0444}, {"special", 06711}, {"set", 0600}})
            tree.write("old.app/d/" + QString(name), "x", mode_t(mode));
        ::chmod(tree.path("old.app/d").toUtf8().constData(), 0500);
        const bool applied =
            applyIn(tree,
                    patchOfFormat2(command("add", "d/added", slice(0, 1) + R"(,"mode":3565)") + ','
                                   + command("add", "d/plain", slice(0, 1)) + ','
                                   + command("mode", "d/set", R"(,"mode":457)") + ','
                                   + command("add", "d/locked", slice(0, 1) + R"(,"mode":292)")));
        ::umask(before);
        ::chmod(tree.path("old.app/d").toUtf8().constData(), 0700);
        QVERIFY(applied);
        const std::pair<const char *, int> modes[] = {
            {"d", 0755},        {"d/kept", 0640},  {"d/special", 0711}, {"d/set", 0711},
            {"d/locked", 0444}, {"d/added", 0755}, {"d/plain", 0640},
        };
        for (const auto &[item, mode] : modes) {
            const Case current(item);
            QCOMPARE(QString::number(TemporaryTree::mode(tree.path("new.app/" + QString(item))), 8),
                     QString::number(mode, 8));
        }
    }

    // What is built, and what is read, is 32 MiB and twice the old bundle of 1 MiB at most, and some more for
    // the patch's own size.
    void buildsOfFormat2AreBounded()
    {
        const QByteArray file(1 << 20, 'x');
        const QByteArray sha256 = QCryptographicHash::hash(file, QCryptographicHash::Sha256).toHex();
        const QByteArray copy = command("copy", "x", R"(,"size":1048576,"from":"f")" + sha256Key(sha256));
        const QByteArray none = command(
            "patch", "x",
            R"(,"size":0,"from":"f")"
                + sha256Key(QCryptographicHash::hash("", QCryptographicHash::Sha256).toHex()) + slice(0, 32));
        const QByteArray add = command("add", "x", slice(0, 1 << 20));
        const std::tuple<QByteArray, int, bool> cases[] = {
            {copy, 34, true}, {copy, 36, false}, {add, 34, true},
            {add, 36, false}, {none, 34, true},  {none, 36, false},
        };
        for (const auto &[commands, times, succeeds] : cases) {
            const Case current(QString("%1 times %2").arg(times).arg(commands.constData()));
            const TemporaryTree tree;
            tree.write("old.app/f", file);
            const QByteArray all = QByteArray(commands + ',').repeated(times - 1) + commands;
            const QByteArray payload = DeltaToNothing + QByteArray((1 << 20) - 32, 'x');
            QCOMPARE(applyIn(tree, patchOfFormat2(all, payload)), succeeds);
            QVERIFY(succeeds || descriptions(m_log).at(m_log.size() - 2).startsWith("Error"));
        }
    }

    void leavesAMarker()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        const QByteArray before = qgetenv("TMPDIR");
        qputenv("TMPDIR", tree.directory("tmp").toUtf8());
        const bool applied = applyIn(tree, patchOfCommands(""));
        before.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", before);
        QVERIFY(applied);
        const QStringList left = QDir(tree.path("tmp")).entryList({"*-*"});
        QCOMPARE(left.size(), 1);
        QCOMPARE(left[0], QUuid(left[0]).toString(QUuid::WithoutBraces).toUpper());
    }

    // A payload of 2 MiB, the first of which is a delta that gives nothing. The old file has 3 MiB.
    void writes()
    {
        const QByteArray whole = slice(0, 2 << 20);
        const QByteArray none = slice(0, 32);
        const std::tuple<QByteArray, int, bool> cases[] = {
            {command("add", "x", whole), 2, true},
            {command("add", "x", whole), 3, false},
            {command("patch", "small", whole + R"(,"hash":"")"), 2, true},
            {command("patch", "small", whole + R"(,"hash":"")"), 3, false},
            {command("patch", "f", none + R"(,"hash":"")"), 1, true},
            {command("patch", "f", none + R"(,"hash":"")"), 2, false},
        };
        for (const auto &[commands, times, succeeds] : cases) {
            const Case current(QString("%1 times %2").arg(times).arg(commands.constData()));
            const TemporaryTree tree;
            tree.write("old.app/f", QByteArray(3 << 20, 'x'));
            tree.write("old.app/small", "x");
            const QByteArray all = QByteArray(commands + ',').repeated(times - 1) + commands;
            const QByteArray payload = DeltaToNothing + QByteArray((2 << 20) - 32, 'x');
            QCOMPARE(applyIn(tree, patchOfCommands(all, payload)), succeeds);
            if (!succeeds)
                QVERIFY(descriptions(m_log).at(m_log.size() - 2).startsWith("Error"));
        }
    }

    void smallBundlesHaveNoLargePayloads()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        QVERIFY(!applyIn(tree, patchOfCommands("", QByteArray(40 << 20, '\0'))));
        QCOMPARE(descriptions(m_log).last(), "Patch failed");
    }

    // Nothing has room for a second copy of this file, which takes none itself.
    void missingSpaceIsTold()
    {
        const TemporaryTree tree;
        if (::truncate(tree.write("old.app/f", "").toUtf8().constData(), off_t(8) << 40) != 0)
            QSKIP("the file system has no such files");
        QVERIFY(!applyIn(tree, patchOfCommands("")));
        const QRegularExpression told("^Error copying old app: .*[0-9]{12,} bytes are missing$");
        QVERIFY2(descriptions(m_log).last().contains(told), qPrintable(descriptions(m_log).last()));
        QVERIFY(!QFileInfo::exists(tree.path("new.app")));
    }

    // Beyond the limit the system raises a signal that would end the host.
    void limitOfFileSizesIsAFailure()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "x");
        const QByteArray payload(1 << 20, 'x');
        const QByteArray patch = patchOfCommands(command("add", "added", slice(0, payload.size())), payload);
        const bool applied = [&] {
            const ResourceLimit limit(RLIMIT_FSIZE, rlim_t(payload.size()) - 1);
            return applyIn(tree, patch);
        }();
        QVERIFY(!applied);
        QCOMPARE(descriptions(m_log).at(m_log.size() - 2), "Error creating file: added");
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

    void bundlesMustNotContainEachOther()
    {
        const TemporaryTree tree;
        tree.write("old.app/f", "old");
        tree.directory("old.app/d");
        tree.link("link", "old.app");
        tree.directory("x");
        const QString patch = tree.write("patch", patchOfCommands(""));
        QList<std::pair<QString, QString>> cases{{".", "new.app"},
                                                 {"./old.app/../old.app", "old.app/new.app/."},
                                                 {"old.app/d/..", "old.app/d"},
                                                 {"link", "old.app/new.app"},
                                                 {"old.app/d", "link/."}};
        for (const char *path :
             {"old.app", "x/../old.app/", "old.app/sub/new.app", ".", "x/../old.app/new/", ""})
            cases.emplaceBack("old.app", path);
        const QString before = QDir::currentPath();
        for (const auto &[old, built] : cases) {
            const Case current(old + " to " + built);
            QDir::setCurrent(tree.path());
            QVariantList log;
            const bool relative = ZELUpdaterApplyPatch(old, built, patch, log);
            const bool absolute =
                ZELUpdaterApplyPatch(tree.path(old), tree.path() + u'/' + built, patch, log);
            QDir::setCurrent(before);
            QVERIFY(!relative && !absolute);
            QCOMPARE(descriptions(log).filter("must not contain each other").size(), 2);
            QCOMPARE(TemporaryTree::listing(tree.path("old.app")), (QStringList{"d/", "f = old"}));
        }
    }

    void aLinkAtTheNewPathIsReplaced()
    {
        for (const QString target : {"other", "old.app", "none"}) {
            for (const QString built : {"/new.app", "/new.app/"}) {
                const Case current(built + " links to " + target);
                const TemporaryTree tree;
                tree.write("old.app/f", "old");
                tree.write("other/kept", "kept");
                tree.link("new.app", target);
                QVariantList log;
                QVERIFY(ZELUpdaterApplyPatch(tree.path("old.app"), tree.path() + built,
                                             tree.write("patch", patchOfCommands("")), log));
                QVERIFY(!QFileInfo(tree.path("new.app")).isSymLink());
                for (const char *bundle : {"new.app", "old.app"})
                    QCOMPARE(TemporaryTree::listing(tree.path(bundle)), QStringList("f = old"));
                QCOMPARE(tree.read("other/kept"), "kept");
            }
        }
    }

    void linksThatFailAreNamed()
    {
        const TemporaryTree tree;
        const LogCapture capture;
        const QByteArrayList commands{command("delete-symlink", "none"),
                                      command("create-symlink", "Contents/link", R"(,"symlink":"x")"),
                                      command("delete-symlink", "Contents/file/x")};
        const Outcome outcome = apply(tree, patchOfCommands(commands.join(',')));
        QCOMPARE(capture.lines("zel.system"), (QStringList{"ENOENT", "ENOENT", "EEXIST", "ENOTDIR"}));
        QCOMPARE(descriptions(m_log).mid(Opening.size()),
                 (QStringList{"Error deleting symlink: none", "Error creating symlink: Contents/link",
                              "Error deleting symlink: Contents/file/x", "Patch succeeded"}));
        QCOMPARE(outcome.after, outcome.before);
    }

    void testPatchComparesFiles()
    {
        const auto add = [](const char *path) { return command("add", path, slice(0, 3)); };
        const QStringList none;
        const QStringList both{".h", "f"};
        const std::tuple<const char *, QByteArray, QStringList> cases[] = {
            {"equal", "", none},
            {"file differs, hidden one is missing", add("f") + ',' + command("delete", ".h"), both},
            {"file too many", add("g"), none},
            {"link instead of the file is passed over",
             command("delete", "f") + ',' + command("create-symlink", "f", R"(,"symlink":"x")"), none},
            {"file instead of a folder is passed over", command("delete", "d") + ',' + add("d"), none},
            {"empty file is missing", command("delete", "empty"), none},
        };
        for (const auto &[name, commands, differing] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const LogCapture capture;
            tree.write("old.app/f", "content");
            tree.write("old.app/.h", "content");
            tree.write("old.app/empty", "");
            tree.directory("old.app/d");
            const QString old = tree.path("old.app");
            const QString patch = tree.write("patch", patchOfCommands(commands));
            QCOMPARE(ZELUpdaterTestPatch(old, tree.path("new.app"), patch, old), differing.isEmpty());
            const QStringList logged = capture.lines("zel.updater", QtDebugMsg);
            QStringList named;
            for (qsizetype at = -1; (at = logged.indexOf("hash error", at + 1)) >= 0;)
                named.append(logged.value(at + 1));
            named.sort();
            QCOMPARE(named, differing);
            QCOMPARE(capture.lines("zel.system").last(),
                     differing.isEmpty() ? "Successfully patched" : "Patching failed");
        }
    }
};

QTEST_GUILESS_MAIN(tst_ApplyPatch)
#include "tst_ApplyPatch.moc"
