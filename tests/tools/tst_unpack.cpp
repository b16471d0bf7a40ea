// zel-unpack run as a program, on good, broken and hostile archives.
#include "publish/ReleaseFiles.h"
#include "support/TemporaryTree.h"
#include "support/ZipMaker.h"
#include "zel-unpack/SafetyCheck.h"

#include <archive.h>
#include <archive_entry.h>
#include <fstream>
#include <QDirIterator>
#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>
#include <sys/mman.h>

struct Outcome {
    int status = -1;
    QByteArray errors;
    QByteArray output = {};
};

static Outcome run(const QByteArray &input, const QStringList &arguments, const QString &program = ZEL_UNPACK)
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), process.readAllStandardError(), process.readAllStandardOutput()};
}

static Outcome unpack(const QByteArray &archive, const QString &folder)
{
    return run(archive, {"-x", "-k", "-", folder});
}

static struct stat statusOf(const QString &file)
{
    struct stat status {
    };
    ::lstat(QFile::encodeName(file).constData(), &status);
    return status;
}

static QStringList everythingIn(const QString &folder)
{
    QStringList found;
    const auto all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    for (QDirIterator it(folder, all, QDirIterator::Subdirectories); it.hasNext();)
        found.append(it.next());
    return found;
}

class tst_unpack : public QObject
{
    Q_OBJECT
private slots:
    void items_data()
    {
        QTest::addColumn<ZipItem>("item");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("mode");
        QTest::addColumn<qint64>("time"); // 0: the archive's local time

        constexpr int file = S_IFREG | 0644;
        const QByteArray text("text");
        auto row = [](const char *title, ZipItem item, QByteArray name, int mode, qint64 time = 0) {
            QTest::newRow(title) << item << (name.isNull() ? item.name : name) << mode << time;
        };
        const QByteArray large = QByteArray(3'000'000, 'a') + "end";
        row("deflated", {.name = "a/b/file", .data = large}, {}, file);
        row("stored", {.name = "file", .data = large, .method = 0}, {}, file);
        row("empty file", {.name = "file"}, {}, file);
        row("read only", {.name = "file", .data = text, .mode = S_IFREG | 0400}, {}, file);
        row("writable by all", {.name = "file", .data = text, .mode = S_IFREG | 0666}, {}, file);
        row("not to be read", {.name = "file", .data = text, .mode = S_IFREG}, {}, file);
        row("program of its owner", {.name = "file", .data = text, .mode = S_IFREG | 0100}, {},
            S_IFREG | 0755);
        row("program of others", {.name = "file", .data = text, .mode = S_IFREG | 01655}, {}, file);
        row("mode without kind", {.name = "file", .data = text, .mode = 0700}, {}, S_IFREG | 0755);
        row("no mode", {.name = "file", .data = text, .mode = 0, .host = 0}, {}, file);
        row("other host's mode", {.name = "file", .data = text, .mode = S_IFIFO, .host = 10}, {}, file);
        row("deflated link", {.name = "link", .data = "a/b/./c", .mode = S_IFLNK | 0777}, {}, S_IFLNK | 0777);
        row("link with a time",
            {.name = "link", .data = "x", .mode = S_IFLNK | 0777, .extra = ZipMaker::timeField(1)}, {},
            S_IFLNK | 0777, 1);
        row("folder without slash", ZipMaker::folder("folder"), {}, S_IFDIR | 0755);
        row("folder by its slash", {.name = "folder/", .mode = 0, .host = 0}, "folder", S_IFDIR | 0755);
        row("open folder", ZipMaker::folder("folder/", 01777), "folder", S_IFDIR | 0755);
        row("closed folder", ZipMaker::folder("folder", 0), {}, S_IFDIR | 0755);
        row("as deep as may be", {.name = QByteArray("d/").repeated(127) + 'f', .data = text}, {}, file);
        row("as long as may be", {.name = QByteArray(255, 'n'), .data = text}, {}, file);
        row("decomposed name", {.name = "e\xcc\x81.txt", .data = text}, {}, file);
        row("name of raw bytes", {.name = "caf\xe9", .data = text, .flags = 0}, {}, file);
        row("odd name", {.name = "-a 'b\" $c;d&(e)\\f\ng", .data = text}, {}, file);
        const QByteArray old =
            ZipMaker::extraField(0x5855, ZipMaker::le32(5) + ZipMaker::le32(1'600'000'001));
        row("before 1970", {.name = "f", .data = text, .extra = ZipMaker::timeField(-7)}, {}, file, -7);
        row("older time field", {.name = "f", .data = text, .extra = old}, {}, file, 1'600'000'001);
        row("folder's time",
            {.name = "d/", .mode = S_IFDIR | 0700, .extra = ZipMaker::timeField(9), .method = 0}, "d",
            S_IFDIR | 0755, 9);
        const QByteArray wide = ZipMaker::extraField(1, ZipMaker::le64(4) + ZipMaker::le64(6));
        row("wide sizes",
            {.name = "f",
             .data = text,
             .extra = wide,
             .claimedSize = UINT32_MAX,
             .claimedPackedSize = UINT32_MAX},
            {}, file);
    }

    void items()
    {
        QFETCH(ZipItem, item);
        QFETCH(QByteArray, name);
        QFETCH(int, mode);
        QFETCH(qint64, time);
        const TemporaryTree tree;
        const Outcome outcome = unpack(ZipMaker::make({item}), tree.path("out"));
        QCOMPARE(outcome.errors, QByteArray());
        QCOMPARE(outcome.status, 0);

        const QByteArray made = QFile::encodeName(tree.path("out/")) + name;
        struct stat status;
        QVERIFY(::lstat(made.constData(), &status) == 0);
        QCOMPARE(int(status.st_mode), mode);
        const qint64 packedTime = QDateTime({2024, 5, 6}, {7, 8, 10}).toSecsSinceEpoch();
        QCOMPARE(qint64(status.st_mtime), time == 0 ? packedTime : time);
        if (S_ISREG(mode)) {
            std::ifstream file(made.toStdString(), std::ios::binary); // names of raw bytes are beyond Qt
            const QByteArray read = QByteArray::fromStdString({std::istreambuf_iterator<char>(file), {}});
            QVERIFY(read == item.data);
        }
        if (S_ISLNK(mode))
            QCOMPARE(TemporaryTree::linkTarget(QFile::decodeName(made)), item.data);
        std::remove(made.constData());
    }

    // Those that are only implied, too.
    void modesWhateverTheUmask()
    {
        const QByteArray archive = ZipMaker::make({{.name = "folder/file", .data = "x"}});
        for (const QString mask : {"0", "077", "0177"}) {
            const TemporaryTree tree;
            const QString script = "umask " + mask + "; exec \"$0\" -x -k - \"$1\"";
            run(archive, {"-c", script, ZEL_UNPACK, tree.directory("out")}, "/bin/sh");
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
            const struct stat status = statusOf(made);
            if (item.name != "./") {
                QCOMPARE(status.st_mode, S_ISLNK(item.mode) ? item.mode : (item.mode & S_IFMT) | 0755);
                QCOMPARE(status.st_mtime, 1'500'000'000);
            }
            if (S_ISLNK(item.mode))
                QCOMPARE(TemporaryTree::linkTarget(made), item.data);
        }
        QVERIFY(tree.read("out/My.app/tool") == items[4].data);
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<QByteArray>("why");

        auto row = [](const char *title, const std::vector<ZipItem> &items, const char *why) {
            QTest::newRow(title) << ZipMaker::make(items) << QByteArray(why);
        };
        const ZipItem good{.name = "good", .data = "good"};
        row("absolute", {good, {.name = "/tmp/x"}}, "absolute");
        row("root behind a dot", {{.name = ".//x"}}, "absolute");
        row("parent inside", {{.name = "a/../../x"}}, "component");
        row("destination as a file", {{.name = "./"}}, "without a name");
        row("dot", {{.name = "a/./b"}}, "component");
        row("double slash", {{.name = "a//b"}}, "component");
        row("file with a slash", {{.name = "a/", .data = "x"}}, "component");
        row("no name", {{.name = ""}}, "without a name");
        row("NUL", {{.name = QByteArray("a\0/../../x", 10)}}, "NUL");
        row("too deep", {{.name = QByteArray("d/").repeated(128) + 'f'}}, "128 levels");
        row("endlessly deep", {{.name = QByteArray("d/").repeated(32'000) + 'f'}}, "4095 bytes");
        row("component too long", {{.name = "d/" + QByteArray(256, 'n')}}, "255 bytes");
        row("name too long", {{.name = (QByteArray(127, 'd') + '/').repeated(32)}}, "4095 bytes");
        row("backslashes", {{.name = "..\\x", .host = 0}}, "backslashes");

        row("absolute link", {ZipMaker::link("l", "/etc")}, "leave");
        row("leaving link", {ZipMaker::link("a/l", "../../x")}, "leave");
        row("link that climbs late", {ZipMaker::link("a/b/top", "../.."), ZipMaker::link("a/b/l", "top/..")},
            "leave");
        row("link without target", {ZipMaker::link("l", "")}, "target");
        row("link with NUL", {ZipMaker::link("l", QByteArray("a\0b", 3))}, "target");
        row("endless link", {ZipMaker::link("l", QByteArray(5000, 'a'))}, "target");
        row("through a link", {ZipMaker::link("l", "a"), {.name = "l/x"}}, "something else");
        row("through a later link", {{.name = "l/x"}, ZipMaker::link("l", "a")}, "something else");
        row("through a file", {good, {.name = "good/x"}}, "something else");
        row("link, then file", {ZipMaker::link("l", "a"), {.name = "l"}}, "twice");
        row("link, then folder", {ZipMaker::link("l", "a"), ZipMaker::folder("l/")}, "twice");

        row("twice", {good, good}, "twice");
        row("case beyond ASCII", {{.name = "\xc3\x84"}, {.name = "\xc3\xa4"}}, "case");
        row("case of a folder", {{.name = "A/1"}, {.name = "a/2"}}, "case");

        row("FIFO", {{.name = "x\u202e\u009b\x1b", .mode = S_IFIFO | 0644}},
            "'x\ufffd\ufffd\ufffd' is neither");
        row("block device", {{.name = "x", .mode = S_IFBLK | 0644, .host = 19}}, "neither");
        row("set-user-id", {{.name = "x", .mode = S_IFREG | 04755}}, "set-id");
        row("set-group-id", {ZipMaker::folder("x/", 02755)}, "set-id");

        row("encrypted", {{.name = "x", .flags = 1}}, "encrypted");
        row("hidden headers", {{.name = "x", .flags = 0x2000}}, "encrypted");
        row("other method", {{.name = "x", .method = 14}}, "deflate");
        row("folder with data", {{.name = "x/", .data = "x", .mode = S_IFDIR | 0755}}, "folder with data");
        row("stored sizes differ", {{.name = "x", .data = "x", .method = 0, .claimedSize = 7}}, "contradict");
        row("wide size missing", {{.name = "x", .data = "x", .claimedSize = UINT32_MAX}}, "contradict");
        row("shared data", {good, {.name = "x", .data = "good", .headerOffset = 0}}, "shares");
        row("data outside", {good, {.name = "x", .data = "x", .claimedPackedSize = 5000}}, "outside");
        auto bomb = [](uint64_t size) -> ZipItem {
            const QByteArray wide = ZipMaker::extraField(1, ZipMaker::le64(size));
            return {.name = "bomb", .extra = wide, .claimedSize = UINT32_MAX};
        };
        row("bomb", {bomb(uint64_t(17) << 30)}, "unpacks to more");
        row("bomb for its size", {good, bomb((uint64_t(256) << 20) + 64 * 200)},
            "that an archive of its size");
        row("bomb whose sum overflows", {good, bomb(UINT64_MAX)}, "unpacks to more");

        const QByteArray whole = ZipMaker::make({good, {.name = "x", .data = "x"}});
        auto bytes = [](const char *title, const QByteArray &archive, const char *why) {
            QTest::newRow(title) << archive << QByteArray(why);
        };
        bytes("garbage", QByteArray(100'000, 'x'), "not a complete zip");
        bytes("something in front", "junk" + whole, "not a complete zip");
        bytes("something behind", whole + "junk", "not a complete zip");
        bytes("wrong count", ZipMaker::make({good}, 1), "damaged");
        bytes("directory offset", QByteArray(whole).replace(whole.size() - 6, 4, "\xff\xff\xff\xff", 4),
              "not a");
        const QByteArray locator =
            "PK\6\7" + QByteArray(4, '\0') + ZipMaker::le64(UINT64_MAX - 10) + ZipMaker::le32(1);
        bytes("wild locator", QByteArray(whole).insert(whole.size() - 22, locator), "not a complete zip");
        bytes("several parts", QByteArray(whole).replace(whole.size() - 18, 1, "\1", 1), "parts");
    }

    void refused()
    {
        QFETCH(QByteArray, archive);
        QFETCH(QByteArray, why);
        const TemporaryTree tree;
        const QString out = tree.directory("in/out");
        const Outcome outcome = unpack(archive, out);
        QCOMPARE(outcome.status, 1);
        QVERIFY2(outcome.errors.contains(why), outcome.errors);
        QCOMPARE(outcome.errors.count('\n'), 1);
        QCOMPARE(everythingIn(tree.path()), QStringList({tree.path("in"), out}));
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
            QCOMPARE(everythingIn(out), QStringList());
        }
    }

    void tooManyEntries()
    {
        const TemporaryTree tree;
        const Outcome outcome = unpack(tooManyItems(), tree.directory("out"));
        QCOMPARE(outcome.status, 1);
        QVERIFY2(outcome.errors.contains("more than 100000 entries"), outcome.errors);
    }

    void damagedData_data()
    {
        QTest::addColumn<ZipItem>("item");
        QTest::addColumn<QByteArray>("why");

        auto row = [](const char *title, const ZipItem &item, const char *why) {
            QTest::newRow(title) << item << QByteArray(why);
        };
        const QByteArray data(1'000'000, 'd');
        const QByteArray packed = ZipMaker::deflate(data);
        row("checksum", {.name = "x", .data = data, .checksumError = 1}, "checksum");
        row("stored checksum", {.name = "x", .data = data, .method = 0, .checksumError = 1}, "checksum");
        row("more than declared", {.name = "x", .data = data, .claimedSize = 10}, "more data");
        row("less than declared", {.name = "x", .data = data, .claimedSize = 2'000'000}, "less data");
        row("cut", {.name = "x", .data = data, .packed = packed.chopped(1)}, "cut short");
        row("goes on", {.name = "x", .data = data, .packed = packed + '\0'}, "goes on");
        row("not deflated", {.name = "x", .data = data, .packed = QByteArray(100, '\xff')},
            "cannot be unpacked");
        row("header elsewhere", {.name = "x", .data = data, .headerOffset = 7}, "not where");
    }

    void damagedData()
    {
        QFETCH(ZipItem, item);
        QFETCH(QByteArray, why);
        const TemporaryTree tree;
        const Outcome outcome = unpack(ZipMaker::make({item}), tree.path("out"));
        QCOMPARE(outcome.status, 1);
        QVERIFY2(outcome.errors.contains(why), outcome.errors);
        QCOMPARE(outcome.errors.count('\n'), 1);
        QVERIFY(QFileInfo(tree.path("out/x")).size() <= 1'000'000);
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
        const QString script = "ulimit -s 100000000000 || exit 7; exec \"$0\" -x -k - \"$1\"";
        const Outcome outcome =
            run(ZipMaker::make(items), {"-c", script, ZEL_UNPACK, tree.path("out")}, "/bin/sh");
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
            const QString script = "ulimit -v " + QString::number(limit) + "; exec \"$0\" -x -k - \"$1\"";
            const Outcome outcome =
                run(archive, {"-c", script, ZEL_UNPACK, tree.directory("out")}, "/bin/sh");
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

    void reports_data()
    {
        QTest::addColumn<QString>("set");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("reported");
        QTest::newRow("done") << "ZEL_UNPACK_REPORT=3" << QByteArray("x") << QByteArray(".0");
        QTest::newRow("refused") << "ZEL_UNPACK_REPORT=3" << QByteArray("../x") << QByteArray("1");
        QTest::newRow("not asked for") << "OTHER=3" << QByteArray("x") << QByteArray();
        QTest::newRow("no number") << "ZEL_UNPACK_REPORT=3x" << QByteArray("x") << QByteArray();
        QTest::newRow("no pipe") << "ZEL_UNPACK_REPORT=4" << QByteArray("x") << QByteArray();
    }

    void reports()
    {
        QFETCH(QString, set);
        QFETCH(QByteArray, name);
        QFETCH(QByteArray, reported);
        const TemporaryTree tree;
        const QString script = set + " exec \"$0\" -x -k - \"$1\" 3>&1 4>>\"$1.log\"";
        const QByteArray archive = ZipMaker::make({{.name = name}});
        QCOMPARE(run(archive, {"-c", script, ZEL_UNPACK, tree.path("out")}, "/bin/sh").output, reported);
        QCOMPARE(tree.read("out.log"), QByteArray());
    }

    // What is opened does not take the place of a standard stream: without input there is none, rather than
    // the folder.
    void closedStreams()
    {
        const TemporaryTree tree;
        const QString script = "exec \"$0\" -x -k - \"$1\" <&-";
        const Outcome outcome = run({}, {"-c", script, ZEL_UNPACK, tree.path("out")}, "/bin/sh");
        QCOMPARE(outcome.status, 1);
        QVERIFY2(outcome.errors.endsWith(": the input is empty\n"), outcome.errors);
    }

    // A limit on the size of files makes writing fail as a full disk does.
    void diskFull()
    {
        const TemporaryTree tree;
        const QString script = "ulimit -f 64; exec \"$0\" -x -k - \"$1\"";
        for (const uint16_t method : {0, 8}) { // while the input is stored, and while it is unpacked
            const QByteArray archive =
                ZipMaker::make({{.name = "x", .data = QByteArray(4'000'000, 'd'), .method = method}});
            const Outcome outcome = run(archive, {"-c", script, ZEL_UNPACK, tree.path("out")}, "/bin/sh");
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
        QByteArray noise(32768, '\0');
        QRandomGenerator random(1);
        std::generate(noise.begin(), noise.end(), [&random] { return char(random.bounded(256)); });
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

    void wrongUsage_data()
    {
        QTest::addColumn<QStringList>("arguments");
        for (const char *line :
             {"", "-x -k -", "-x -k - ", "-x -k a.zip out", "-k -x - out", "-x -k - out more"})
            QTest::newRow(line) << QString(line).split(' ');
    }

    void wrongUsage()
    {
        QFETCH(QStringList, arguments);
        const Outcome outcome = run({}, arguments);
        QCOMPARE(outcome.status, 2);
        QVERIFY(outcome.errors.startsWith("Usage: zel-unpack -x -k - DIR\n"));
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
        const std::unique_ptr<archive, int (*)(archive *)> writer(archive_write_new(), archive_write_free);
        archive_write_set_format_zip(writer.get());
        archive_write_open_memory(writer.get(), packed.data(), size_t(packed.size()), &used);
        for (const ZipItem &item : items) {
            const std::unique_ptr<archive_entry, void (*)(archive_entry *)> entry(archive_entry_new(),
                                                                                  archive_entry_free);
            const bool link = S_ISLNK(item.mode);
            archive_entry_set_pathname(entry.get(), item.name.constData());
            archive_entry_set_mode(entry.get(), item.mode);
            archive_entry_set_mtime(entry.get(), 1'500'000'000, 0);
            archive_entry_set_size(entry.get(), link ? 0 : item.data.size());
            if (link)
                archive_entry_set_symlink(entry.get(), item.data.constData());
            archive_write_header(writer.get(), entry.get());
            if (!link)
                archive_write_data(writer.get(), item.data.constData(), size_t(item.data.size()));
        }
        archive_write_close(writer.get());
        packed.truncate(qsizetype(used));
        return packed;
    }
};

QTEST_GUILESS_MAIN(tst_unpack)
#include "tst_unpack.moc"
