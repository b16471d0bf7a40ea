#include "install/PatchFile.h"
#include "support/Case.h"
#include "support/PatchBuilder.h"
#include "support/ResourceLimit.h"
#include "support/TemporaryTree.h"

using namespace zel;

class tst_PatchFile : public QObject
{
    Q_OBJECT
private slots:
    void faults()
    {
        const QByteArray manifest = xz(R"({"commands":[]})");
        const QByteArray payload = xz("payload");
        const QByteArray size = QByteArray::number(manifest.size());
        const QByteArray names = command("none", QByteArray("no/").repeated(999) + "no");
        const QByteArray values = QByteArray(R"([\",{[)").repeated(400'000);
        const QByteArray older = QByteArray::fromHex("5d00008000ffffffffffffffff0083fffbffffc0000000");
        const QString packing = "not decompress";
        const QString end = "does not end within the file";
        // The last is part of the error's text; empty where the file is sound.
        const std::tuple<const char *, QByteArray, QString> cases[] = {
            {"padded with NULs", patchFile(size, manifest, payload), ""},
            {"padded with blanks", patchFile(size.leftJustified(32, ' '), manifest, payload), ""},
            {"blanks before, sign, junk behind", patchFile("  +" + size + " junk", manifest, payload), ""},
            {"not text", patchFile(size + '\xff', manifest, payload), packing},
            {"negative length", patchFile("-5", manifest, payload), end},
            {"length past the end", patchFile("9999", manifest, payload), end},
            {"length beyond 64 bits", patchFile("99999999999999999999", manifest, payload), end},
            {"manifest is not xz", patchFile("3", "abc", payload), packing},
            {"manifest is not JSON", patchOf("no json"), ""},
            {"manifest is an array", patchOf("[1]"), ""},
            {"commands are no array", patchOf(R"({"commands":{"actions":["delete"]}})"), ""},
            {"most commands", patchOfCommands(QByteArray("{},").repeated(199'999) + "{}"), ""},
            {"one command more", patchOfCommands(QByteArray("{},").repeated(200'000) + "{}"),
             "200000 commands"},
            {"values of nothing", patchOfCommands(QByteArray("0,").repeated(2'000'000) + '0'), "values"},
            {"values within each other", patchOfCommands(QByteArray("[[[],{}]],").repeated(400'000) + '0'),
             "values"},
            {"a text that looks like values", patchOfCommands('"' + values + '"'), ""},
            {"a large manifest", patchOfCommands(QByteArray(16 << 20, ' ')), packing},
            {"most names", patchOfCommands(QByteArray(names + ',').repeated(499) + names), ""},
            {"one name more", patchOfCommands(QByteArray(names + ',').repeated(500) + command("none", "no")),
             "500000 names"},
            {"payload is followed by more", patchFile(size, manifest, payload + "more"), packing},
            {"older container", patchFile(size, manifest, older), packing},
            {"format 1 by name", patchOf(R"({"format":1,"requires":["modes","moved-files"]})"), ""},
            {"format to come", patchOf(R"({"format":3})"), "of format 3, and 2 is"},
            {"format as text", patchOf(R"({"format":"2"})"), "\"format\""},
            {"format between", patchOf(R"({"format":1.5})"), "\"format\""},
            {"unknown requirement", patchOf(R"({"requires":["modes","wings"]})"), "requires \"wings\""},
            {"requirement of no type", patchOf(R"({"requires":[7]})"), "requires \"\""},
            {"requirements as text", patchOf(R"({"requires":"modes"})"), "\"requires\""},
            {"no guard", patchOf(R"({"format":2,"commands":[)" + command("delete", "f") + "]}"),
             "first command"},
            {"nothing at all", patchOf(R"({"format":2})"), "first command"},
        };
        for (const auto &[name, bytes, why] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            PatchFile file;
            const ZELError error = PatchFile::read(tree.write("patch", bytes), {.oldBundle = 1}, file);
            QVERIFY2(why.isEmpty() ? !error : error.message.contains(why), qPrintable(error.message));
        }
    }

    // What is not understood must not pass for what is not there. Format 1 knows none of these keys.
    void valuesOfFormat2()
    {
        const QByteArray sha256 = sha256Key(QByteArray(64, '0'));
        const QByteArray sound = R"(,"size":1,"from":"g")" + sha256;
        // The command, its keys, and the one that is refused; null where none is.
        const std::tuple<QByteArray, QByteArray, const char *> cases[] = {
            {"copy", sound, nullptr},
            {"copy", R"(,"size":4294967296,"from":"g")" + sha256, nullptr},
            {"patch", R"(,"size":2147483647)" + sha256, nullptr},
            {"add", R"(,"mode":0)", nullptr},
            {"copy", R"(,"size":1)" + sha256, "from"},
            {"copy", R"(,"size":1,"from":"")" + sha256, "from"},
            {"patch", R"(,"size":1,"from":7)" + sha256, "from"},
            {"patch", R"(,"size":1)", "sha256"},
            {"copy", R"(,"size":1,"from":"g")", "sha256"},
            {"add", R"(,"sha256":5)", "sha256"},
            {"add", R"(,"sha256":"")", "sha256"},
            {"add", R"(,"sha256":null)", "sha256"},
            {"add", sha256Key(QByteArray(64, 'A')), "sha256"},
            {"add", sha256Key(QByteArray(63, 'a')), "sha256"},
            {"patch", R"(,"hash":false)" + sound, "hash"},
            {"patch", R"(,"from":"g")" + sha256, "size"},
            {"patch", R"(,"size":2147483648)" + sha256, "size"},
            {"copy", R"(,"size":4294967297,"from":"g")" + sha256, "size"},
            {"copy", R"(,"size":-1,"from":"g")" + sha256, "size"},
            {"copy", R"(,"size":"1","from":"g")" + sha256, "size"},
            {"copy", R"(,"size":1e300,"from":"g")" + sha256, "size"},
            {"mode", "", "mode"},
            {"mode", R"(,"mode":"420")", "mode"},
            {"add", R"(,"mode":1.5)", "mode"},
            {"add", R"(,"mode":-1)", "mode"},
            {"add", R"(,"mode":null)", "mode"},
        };
        for (const auto &[action, keys, wrong] : cases) {
            const Case current(action + keys);
            const TemporaryTree tree;
            PatchFile file;
            const QByteArray commands = command(action, "f", keys);
            ZELError error = PatchFile::read(tree.write("patch", patchOfFormat2(commands)), {}, file);
            QCOMPARE(bool(error), wrong != nullptr);
            QVERIFY2(error.message.contains(QString("the \"%1\" of").arg(wrong)) == bool(error),
                     qPrintable(error.message));
            error = PatchFile::read(tree.write("patch", patchOfCommands(commands)), {}, file);
            QVERIFY2(!error, qPrintable(error.message));
        }
    }

    void exhaustedMemoryIsAFailure()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("a sanitizer takes more memory than a limit could leave");
#endif
        const TemporaryTree tree;
        const QByteArray commands = QByteArray("[[0]],").repeated(300'000) + '0';
        const QString patch = tree.write("patch", patchOfCommands(commands));
        const QByteArray pages = TemporaryTree::contents("/proc/self/statm").split(' ').first();
        PatchFile file;
        ZELError error;
        {
            const ResourceLimit limit(RLIMIT_AS,
                                      pages.toULong() * ulong(::sysconf(_SC_PAGESIZE)) + (48 << 20));
            error = PatchFile::read(patch, {}, file);
        }
        QVERIFY2(error.message.contains("there is no memory"), qPrintable(error.message));
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
        const QByteArray whole = patchOfCommands(R"({"actions":["delete"],"path":"f"})");
        for (qsizetype size = 0; size < whole.size(); ++size) {
            const Case current(QString::number(size));
            PatchFile file;
            QVERIFY(PatchFile::read(tree.write("patch", whole.first(size)), {}, file));
        }
    }
};

QTEST_GUILESS_MAIN(tst_PatchFile)
#include "tst_PatchFile.moc"
