// zel-unpack run as a program, on good, broken and hostile archives.
#include "publish/ReleaseFiles.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/TemporaryTree.h"
#include "support/ZipMaker.h"
#include "zel-unpack/SafetyCheck.h"

#include <archive.h>
#include <archive_entry.h>
#include <filesystem>
#include <fstream>
#include <QProcess>
#include <QtTest>
#include <sys/mman.h>

struct Outcome {
    int status = -1;
    QByteArray errors;
    QByteArray output = {};
};

static Outcome run(const QString &program, const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardError(), process.readAllStandardOutput()};
}

// `before` and `after` are what a shell is told around the command.
static Outcome unpack(const QByteArray &archive, const QString &folder, const QString &before = {},
                      const QString &after = {})
{
    const QString script = before + " exec \"$0\" -x -k - \"$1\" " + after;
    return run("/bin/sh", {"-c", script, ZEL_UNPACK, folder}, archive);
}

static struct stat statusOf(const QByteArray &file)
{
    struct stat status {
    };
    ::lstat(file.constData(), &status);
    return status;
}

static qsizetype countIn(const QString &folder)
{
    return std::distance(std::filesystem::recursive_directory_iterator(folder.toStdString()), {});
}

class tst_unpack : public QObject
{
    Q_OBJECT
private slots:
    void items()
    {
        constexpr int file = S_IFREG | 0644;
        struct Row {
            const char *title;
            ZipItem item;
            int mode = file;
            QByteArray name = item.name;
            qint64 time = QDateTime({2024, 5, 6}, {7, 8, 10}).toSecsSinceEpoch(); // local, as packed
        };
        const QByteArray text("text");
        const QByteArray large = QByteArray(3'000'000, 'a') + "end";
        const QByteArray old =
            ZipMaker::extraField(0x5855, ZipMaker::le32(5) + ZipMaker::le32(1'600'000'001));
        const ZipItem timedLink{
            .name = "link", .data = "x", .mode = S_IFLNK | 0777, .extra = ZipMaker::timeField(1)};
        const ZipItem timedFolder{
            .name = "d/", .mode = S_IFDIR | 0700, .extra = ZipMaker::timeField(9), .method = 0};
        const ZipItem wide{.name = "f",
                           .data = text,
                           .extra = ZipMaker::extraField(1, ZipMaker::le64(4) + ZipMaker::le64(6)),
                           .claimedSize = UINT32_MAX,
                           .claimedPackedSize = UINT32_MAX};
        const std::vector<Row> rows{
            {"deflated", {.name = "a/b/file", .data = large}},
            {"stored", {.name = "file", .data = large, .method = 0}},
            {"empty file", {.name = "file"}},
            {"read only", {.name = "file", .data = text, .mode = S_IFREG | 0400}},
            {"not to be read", {.name = "file", .data = text, .mode = S_IFREG}},
            {"program of its owner", {.name = "file", .mode = S_IFREG | 0100}, S_IFREG | 0755},
            {"program of others", {.name = "file", .data = text, .mode = S_IFREG | 01655}},
            {"mode without kind", {.name = "file", .data = text, .mode = 0700}, S_IFREG | 0755},
            {"no mode", {.name = "file", .data = text, .mode = 0, .host = 0}},
            {"other host's mode", {.name = "file", .data = text, .mode = S_IFIFO, .host = 10}},
            {"deflated link", {.name = "l", .data = "a/b/./c", .mode = S_IFLNK | 0777}, S_IFLNK | 0777},
            {"link with a time", timedLink, S_IFLNK | 0777, "link", 1},
            {"folder without slash", ZipMaker::folder("folder"), S_IFDIR | 0755},
            {"folder by its slash", {.name = "d/", .mode = 0, .host = 0}, S_IFDIR | 0755, "d"},
            {"open folder", ZipMaker::folder("folder/", 01777), S_IFDIR | 0755, "folder"},
            {"closed folder", ZipMaker::folder("folder", 0), S_IFDIR | 0755},
            {"folder's time", timedFolder, S_IFDIR | 0755, "d", 9},
            {"as deep as may be", {.name = QByteArray("d/").repeated(127) + 'f', .data = text}},
            {"as long as may be", {.name = QByteArray(255, 'n'), .data = text}},
            {"decomposed name", {.name = "e\xcc\x81.txt", .data = text}},
            {"name of raw bytes", {.name = "caf\xe9", .data = text, .flags = 0}},
            {"odd name", {.name = "-a 'b\" $c;d&(e)\\f\ng", .data = text}},
            {"before 1970", {.name = "f", .extra = ZipMaker::timeField(-7)}, file, "f", -7},
            {"older time field", {.name = "f", .extra = old}, file, "f", 1'600'000'001},
            {"wide sizes", wide},
        };
        for (const auto &[title, item, mode, name, time] : rows) {
            const Case context(title);
            const TemporaryTree tree;
            const Outcome outcome = unpack(ZipMaker::make({item}), tree.path("out"));
            QCOMPARE(outcome.errors, QByteArray());
            QCOMPARE(outcome.status, 0);

            const QByteArray made = QFile::encodeName(tree.path("out/")) + name;
            const struct stat status = statusOf(made);
            QCOMPARE(int(status.st_mode), mode);
            QCOMPARE(qint64(status.st_mtime), time);
            if (S_ISREG(mode)) {
                std::ifstream read(made.toStdString(), std::ios::binary); // names of raw bytes are beyond Qt
                const std::string content{std::istreambuf_iterator<char>(read), {}};
                QVERIFY(content == item.data.toStdString());
            }
            if (S_ISLNK(mode))
                QCOMPARE(TemporaryTree::linkTarget(QFile::decodeName(made)), item.data);
            std::remove(made.constData());
        }
    }

    // Those that are only implied, too.
    void modesWhateverTheUmask()
    {
        const QByteArray archive = ZipMaker::make({{.name = "folder/file", .data = "x"}});
        for (const QString mask : {"0", "077", "0177"}) {
            const TemporaryTree tree;
            unpack(archive, tree.directory("out"), "umask " + mask + ';');
            QCOMPARE(TemporaryTree::mode(tree.path("out/folder")), 0755);
            QCOMPARE(TemporaryTree::mode(tree.path("out/folder/file")), 0644);
        }
    }

    // A bundle as another program packs it: folders that are closed for writing, links between them.
    void bundleOfAnotherPacker()
    {
        const std::vector<ZipItem> items = {
            ZipMaker::folder("./"),
            ZipMaker::folder("./My.app/", 0555),
            ZipMaker::folder("./My.app/Versions/", 0500),
            ZipMaker::folder("./My.app/Versions/A/"),
            {.name = "./My.app/Versions/A/tool", .data = QByteArray(500'000, 't'), .mode = S_IFREG | 0755},
            ZipMaker::folder("./My.app/Versions/B/"),
            ZipMaker::link("./My.app/Versions/Current", "A"),
            ZipMaker::link("./My.app/tool", "Versions/Current/tool"),
        };
        const TemporaryTree tree;
        QCOMPARE(unpack(packedByLibrary(items), tree.path("out")).errors, QByteArray());
        for (const ZipItem &item : items) {
            const QString made = tree.path("out/" + item.name);
            const struct stat status = statusOf(QFile::encodeName(made));
            if (item.name != "./") {
                QCOMPARE(status.st_mode, S_ISLNK(item.mode) ? item.mode : (item.mode & S_IFMT) | 0755);
                QCOMPARE(status.st_mtime, 1'500'000'000);
            }
            if (S_ISLNK(item.mode))
                QCOMPARE(TemporaryTree::linkTarget(made), item.data);
        }
        QVERIFY(tree.read("out/My.app/tool") == items[4].data);
    }

    void refused()
    {
        const ZipItem good{.name = "good", .data = "good"};
        const QByteArray whole = ZipMaker::make({good, {.name = "x", .data = "x"}});
        const QByteArray locator =
            "PK\6\7" + QByteArray(4, '\0') + ZipMaker::le64(UINT64_MAX - 10) + ZipMaker::le32(1);
        const auto bomb = [](uint64_t size) -> ZipItem {
            const QByteArray wide = ZipMaker::extraField(1, ZipMaker::le64(size));
            return {.name = "bomb", .extra = wide, .claimedSize = UINT32_MAX};
        };
        const auto patched = [&](qsizetype fromEnd, const QByteArray &bytes) {
            return QByteArray(whole).replace(whole.size() - fromEnd, bytes.size(), bytes);
        };
        struct Row {
            const char *why;
            std::vector<ZipItem> items;
            QByteArray archive = ZipMaker::make(items);
        };
        const std::vector<Row> rows{
            {"absolute", {good, {.name = "/tmp/x"}}},
            {"absolute", {{.name = ".//x"}}},
            {"component", {{.name = "a/../../x"}}},
            {"without a name", {{.name = "./"}}},
            {"component", {{.name = "a/./b"}}},
            {"component", {{.name = "a//b"}}},
            {"component", {{.name = "a/", .data = "x"}}},
            {"without a name", {{.name = ""}}},
            {"NUL", {{.name = QByteArray("a\0/../../x", 10)}}},
            {"128 levels", {{.name = QByteArray("d/").repeated(128) + 'f'}}},
            {"4095 bytes", {{.name = QByteArray("d/").repeated(32'000) + 'f'}}},
            {"255 bytes", {{.name = "d/" + QByteArray(256, 'n')}}},
            {"4095 bytes", {{.name = (QByteArray(127, 'd') + '/').repeated(32)}}},
            {"backslashes", {{.name = "..\\x", .host = 0}}},

            {"leave", {ZipMaker::link("l", "/etc")}},
            {"leave", {ZipMaker::link("a/l", "../../x")}},
            {"leave", {ZipMaker::link("a/b/top", "../.."), ZipMaker::link("a/b/l", "top/..")}},
            {"target", {ZipMaker::link("l", "")}},
            {"target", {ZipMaker::link("l", QByteArray("a\0b", 3))}},
            {"target", {ZipMaker::link("l", QByteArray(5000, 'a'))}},
            {"something else", {ZipMaker::link("l", "a"), {.name = "l/x"}}},
            {"something else", {{.name = "l/x"}, ZipMaker::link("l", "a")}},
            {"something else", {good, {.name = "good/x"}}},
            {"twice", {ZipMaker::link("l", "a"), {.name = "l"}}},
            {"twice", {ZipMaker::link("l", "a"), ZipMaker::folder("l/")}},

            {"twice", {good, good}},
            {"case", {{.name = "\xc3\x84"}, {.name = "\xc3\xa4"}}},
            {"case", {{.name = "A/1"}, {.name = "a/2"}}},

            {"'x\ufffd\ufffd\ufffd' is neither", {{.name = "x\u202e\u009b\x1b", .mode = S_IFIFO | 0644}}},
            {"neither", {{.name = "x", .mode = S_IFBLK | 0644, .host = 19}}},
            {"set-id", {{.name = "x", .mode = S_IFREG | 04755}}},
            {"set-id", {ZipMaker::folder("x/", 02755)}},

            {"encrypted", {{.name = "x", .flags = 1}}},
            {"encrypted", {{.name = "x", .flags = 0x2000}}},
            {"deflate", {{.name = "x", .method = 14}}},
            {"folder with data", {{.name = "x/", .data = "x", .mode = S_IFDIR | 0755}}},
            {"contradict", {{.name = "x", .data = "x", .method = 0, .claimedSize = 7}}},
            {"contradict", {{.name = "x", .data = "x", .claimedSize = UINT32_MAX}}},
            {"shares", {good, {.name = "x", .data = "good", .headerOffset = 0}}},
            {"outside", {good, {.name = "x", .data = "x", .claimedPackedSize = 5000}}},
            {"unpacks to more", {bomb(uint64_t(17) << 30)}},
            {"that an archive of its size", {good, bomb((uint64_t(256) << 20) + 64 * 200)}},
            {"unpacks to more", {good, bomb(UINT64_MAX)}},

            {"not a complete zip", {}, QByteArray(100'000, 'x')},
            {"not a complete zip", {}, "junk" + whole},
            {"not a complete zip", {}, whole + "junk"},
            {"damaged", {}, ZipMaker::make({good}, 1)},
            {"not a", {}, patched(6, "\xff\xff\xff\xff")},
            {"not a", {}, QByteArray(whole).insert(whole.size() - 22, locator)},
            {"parts", {}, patched(18, "\1")},
        };
        for (const auto &[why, items, archive] : rows) {
            const Case context(why);
            const TemporaryTree tree;
            const QString out = tree.directory("in/out");
            const Outcome outcome = unpack(archive, out);
            QCOMPARE(outcome.status, 1);
            QVERIFY2(outcome.errors.contains(why), outcome.errors);
            QCOMPARE(outcome.errors.count('\n'), 1);
            QCOMPARE(countIn(tree.path()), 2); // the two folders
        }
    }

    // Cut at every length: an archive is complete or nothing is written at all.
    void truncated()
    {
        const TemporaryTree tree;
        const QString out = tree.directory("out");
        const QByteArray whole =
            ZipMaker::make({{.name = "a/file", .data = "text"}, ZipMaker::link("l", "a")});
        for (qsizetype length = 0; length < whole.size(); ++length) {
            const Outcome outcome = unpack(whole.first(length), out);
            QCOMPARE(outcome.status, 1);
            QCOMPARE(outcome.errors.count('\n'), 1);
            QCOMPARE(countIn(out), 0);
        }
    }

    void damagedData()
    {
        const QByteArray data(1'000'000, 'd');
        const QByteArray packed = ZipMaker::deflate(data);
        const std::vector<std::pair<const char *, ZipItem>> rows{
            {"checksum", {.name = "x", .data = data, .checksumError = 1}},
            {"checksum", {.name = "x", .data = data, .method = 0, .checksumError = 1}},
            {"more data", {.name = "x", .data = data, .claimedSize = 10}},
            {"less data", {.name = "x", .data = data, .claimedSize = 2'000'000}},
            {"cut short", {.name = "x", .data = data, .packed = packed.chopped(1)}},
            {"goes on", {.name = "x", .data = data, .packed = packed + '\0'}},
            {"cannot be unpacked", {.name = "x", .data = data, .packed = QByteArray(100, '\xff')}},
            {"not where", {.name = "x", .data = data, .headerOffset = 7}},
        };
        for (const auto &[why, item] : rows) {
            const TemporaryTree tree;
            const Outcome outcome = unpack(ZipMaker::make({item}), tree.path("out"));
            QCOMPARE(outcome.status, 1);
            QVERIFY2(outcome.errors.contains(why), outcome.errors);
            QCOMPARE(outcome.errors.count('\n'), 1);
            QVERIFY(QFileInfo(tree.path("out/x")).size() <= 1'000'000);
        }
    }

    // Links that are in the destination already lead nowhere either.
    void linksInTheDestination()
    {
        const TemporaryTree tree;
        tree.write("outside/kept", "kept");
        tree.link("out/folder", tree.path("outside"));
        tree.link("out/kept", tree.path("outside/kept"));
        tree.write("out/link", "replaced");

        const Outcome through =
            unpack(ZipMaker::make({{.name = "folder/new", .data = "x"}}), tree.path("out"));
        QCOMPARE(through.status, 1);
        QVERIFY(!QFileInfo::exists(tree.path("outside/new")));

        const QByteArray over =
            ZipMaker::make({{.name = "kept", .data = "new"}, ZipMaker::link("link", "kept")});
        QCOMPARE(unpack(over, tree.path("out")).errors, QByteArray());
        QCOMPARE(tree.read("out/link"), QByteArray("new"));
        QCOMPARE(tree.read("outside/kept"), QByteArray("kept"));
    }

    // What is missing is said. A file takes whole blocks of 4096 bytes, and an empty one a block, too.
    void room()
    {
        const QByteArray bytes = ZipMaker::make(
            {{.name = "a", .data = QByteArray(4097, 'a')}, {.name = "b"}, ZipMaker::folder("c")});
        zel::Spool archive{zel::FileDescriptor(::memfd_create("archive", MFD_CLOEXEC)), size_t(bytes.size())};
        QVERIFY(zel::writeAll(archive.file.get(), bytes.constData(), size_t(bytes.size())));
        zel::ZipDirectory directory;
        QVERIFY(!directory.read(archive));
        QVERIFY(!zel::judgeRoom(directory, 4 * 4096));
        const zel::Problem problem = zel::judgeRoom(directory, 4 * 4096 - 1);
        QVERIFY(problem && problem->find("unpacks to 16384 bytes, 1 more than") != std::string::npos);
    }

    void noSecondThread()
    {
        const TemporaryTree tree;
        const std::vector<ZipItem> items = {{.name = "a", .data = "a"}, {.name = "b", .data = "b"}};
        // A thread wants a stack of the size that the main one may grow to: so much is not to be had.
        const Outcome outcome =
            unpack(ZipMaker::make(items), tree.path("out"), "ulimit -s 100000000000 || exit 7;");
        QCOMPARE(outcome.errors, QByteArray());
        QCOMPARE(outcome.status, 0);
        QCOMPARE(tree.read("out/a") + tree.read("out/b"), QByteArray("ab"));
    }

    // From so little that the program cannot even be loaded up to what is enough to refuse an archive for
    // what it is.
    void littleMemory()
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        QSKIP("sanitizers need all the address space there is");
#endif
        const TemporaryTree tree;
        const QByteArray archive = tooManyItems();
        bool exhausted = false;
        for (int limit = 4096;; limit += 1024) {
            const Outcome outcome =
                unpack(archive, tree.directory("out"), QString("ulimit -v %1;").arg(limit));
            if (outcome.errors.contains("more than 100000 entries"))
                break;
            if (outcome.status == 127)
                continue;
            QCOMPARE(outcome.status, 1);
            QVERIFY2(outcome.errors.endsWith(": there is too little memory\n"), outcome.errors);
            exhausted = true;
        }
        QVERIFY(exhausted);
    }

    void reports()
    {
        for (const auto &[set, name, reported] : {std::tuple("ZEL_UNPACK_REPORT=3", "x", ".0"),
                                                  {"ZEL_UNPACK_REPORT=3", "../x", "1"},
                                                  {"OTHER=3", "x", ""},
                                                  {"ZEL_UNPACK_REPORT=3x", "x", ""},
                                                  {"ZEL_UNPACK_REPORT=4", "x", ""}}) { // a file, no pipe
            const TemporaryTree tree;
            const QByteArray archive = ZipMaker::make({{.name = name}});
            const Outcome outcome = unpack(archive, tree.path("out"), set, "3>&1 4>>\"$1.log\"");
            QCOMPARE(outcome.output, reported);
            QCOMPARE(tree.read("out.log"), QByteArray());
        }
    }

    // What is opened does not take the place of a standard stream: without input there is none, rather than
    // the folder.
    void closedStreams()
    {
        const TemporaryTree tree;
        const Outcome outcome = unpack({}, tree.path("out"), {}, "<&-");
        QCOMPARE(outcome.status, 1);
        QVERIFY2(outcome.errors.endsWith(": the input is empty\n"), outcome.errors);
    }

    // A limit on the size of files makes writing fail as a full disk does.
    void diskFull()
    {
        const TemporaryTree tree;
        for (const uint16_t method : {0, 8}) { // while the input is stored, and while it is unpacked
            const QByteArray archive =
                ZipMaker::make({{.name = "x", .data = QByteArray(4'000'000, 'd'), .method = method}});
            const Outcome outcome = unpack(archive, tree.path("out"), "ulimit -f 64;");
            QCOMPARE(outcome.status, 1);
            QVERIFY2(outcome.errors.contains("File too large"), outcome.errors);
        }
    }

    // What the publisher's tool writes. Files of n * 32768 bytes have no hash: around the first of those
    // sizes, none is left out but that one.
    void publishedArchives()
    {
        const TemporaryTree tree;
        const QString bundle = tree.directory("A.app/Contents").chopped(9);
        ::chmod(QFile::encodeName(bundle).constData(), 02700);
        tree.write("A.app/run", "program", 0100);
        tree.write("A.app/plain", "text", 0600);
        const QByteArray noise = randomBytes(32768, 256, 1);
        const QString zip = tree.path("A.zip");
        QList<qint64> sizes;
        for (qsizetype taken = 31'900; sizes.isEmpty() || sizes.last() <= 32768; ++taken) {
            tree.write("A.app/noise", noise.first(taken));
            QCOMPARE(zel::writeBundleZip(bundle, zip).message, QString());
            sizes.append(QFileInfo(zip).size());
        }
        QVERIFY(sizes.contains(32767) && !sizes.contains(32768) && sizes.contains(32769));
        QVERIFY(tree.read("A.zip").endsWith(QByteArray("\1\0 ", 3)));

        QCOMPARE(unpack(tree.read("A.zip"), tree.path("out")).errors, QByteArray());
        for (const auto &[name, mode] : {std::pair("", 0755), {"/run", 0755}, {"/plain", 0644}})
            QCOMPARE(TemporaryTree::mode(tree.path("out/A.app") + name), mode);
        const QByteArray first = tree.read("A.zip");
        QVERIFY(first.contains(QByteArray("\0\0\xed\x81", 4))); // 0755 of a file, in the directory
        QCOMPARE(zel::writeBundleZip(bundle, zip).message, QString());
        QVERIFY(tree.read("A.zip") == first);
    }

    void wrongUsage()
    {
        for (const QString line :
             {"", "-x -k -", "-x -k - ", "-x -k a.zip out", "-k -x - out", "-x -k - out more"}) {
            const Case context(line);
            const Outcome outcome = run(ZEL_UNPACK, line.split(' '), {});
            QCOMPARE(outcome.status, 2);
            QVERIFY(outcome.errors.startsWith("Usage: zel-unpack -x -k - DIR\n"));
        }
    }

private:
    static QByteArray tooManyItems()
    {
        std::vector<ZipItem> items;
        for (int i = 0; i < 50'001; ++i)
            items.push_back({.name = QByteArray::number(i) + "/f", .method = 0}); // each implies a folder
        return ZipMaker::make(items);
    }

    static QByteArray packedByLibrary(const std::vector<ZipItem> &items)
    {
        QByteArray packed(2'000'000, '\0');
        size_t used = 0;
        archive *const writer = archive_write_new();
        archive_entry *const entry = archive_entry_new();
        archive_write_set_format_zip(writer);
        archive_write_open_memory(writer, packed.data(), size_t(packed.size()), &used);
        for (const ZipItem &item : items) {
            const bool link = S_ISLNK(item.mode);
            archive_entry_clear(entry);
            archive_entry_set_pathname(entry, item.name.constData());
            archive_entry_set_mode(entry, item.mode);
            archive_entry_set_mtime(entry, 1'500'000'000, 0);
            archive_entry_set_size(entry, link ? 0 : item.data.size());
            if (link)
                archive_entry_set_symlink(entry, item.data.constData());
            archive_write_header(writer, entry);
            if (!link)
                archive_write_data(writer, item.data.constData(), size_t(item.data.size()));
        }
        archive_entry_free(entry);
        archive_write_free(writer);
        packed.truncate(qsizetype(used));
        return packed;
    }
};

QTEST_GUILESS_MAIN(tst_unpack)
#include "tst_unpack.moc"
