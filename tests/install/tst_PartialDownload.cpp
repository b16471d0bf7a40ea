#include "common/ZELUpdaterTypes.h"
#include "install/MD5FromData.h"
#include "install/PartialDownload.h"
#include "install/UpdateJob.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"

#include <QCryptographicHash>

#include <fcntl.h>
#include <sys/syscall.h>
#include <thread>

using namespace zel;
using Answer = TestServer::Answer;
using Answers = QList<Answer>;
using Prepare = std::function<void(const TemporaryTree &tree, const QString &part)>;

Q_DECLARE_METATYPE(Prepare)
Q_DECLARE_METATYPE(Answers)

namespace {

const QByteArray Text = "0123456789";
const QByteArray Validator = "\"v1\"";
const QString Hash = QCryptographicHash::hash(Text, QCryptographicHash::Sha256).toHex();

QString partIn(const TemporaryTree &tree, const QString &hash = Hash)
{
    return tree.path("root/" + hash + ".part");
}

void keep(const TemporaryTree &tree, const QByteArray &bytes, const QByteArray &validator = Validator)
{
    ::chmod(QFile::encodeName(tree.directory("root")).constData(), 0700);
    tree.write("root/" + Hash + ".part", bytes, 0600);
    tree.write("root/" + Hash + ".validator", validator, 0600);
}

Answer rest(const QByteArray &body = "6789")
{
    return {.status = 206, .body = body, .headers = {{"Content-Range", "bytes 6-9/10"}}};
}

Answer whole(const QByteArray &body = Text, qsizetype dropAt = TestServer::Never)
{
    return {.body = body, .headers = {{"ETag", Validator}}, .dropAt = dropAt};
}

std::function<void()> beforeLock; // what another process does at that very moment, once

} // namespace

// Under its own name it would hide the structure of that name.
extern "C" int lockingFile(int file, int operation) noexcept __asm__("flock");

int lockingFile(int file, int operation) noexcept
{
    if (const auto meanwhile = std::exchange(beforeLock, nullptr))
        meanwhile();
    return int(::syscall(SYS_flock, file, operation));
}

class tst_PartialDownload : public QObject
{
    Q_OBJECT

private slots:
    void taken_data()
    {
        QTest::addColumn<Prepare>("prepare");
        QTest::addColumn<qint64>("kept");
        const auto row = [](const char *name, qint64 kept, const Prepare &prepare) {
            QTest::newRow(name) << prepare << kept;
        };
        // The validator or the part is replaced by what follows.
        const auto validator = [&](const char *name, const QByteArray &text) {
            row(name, 0, [=](const TemporaryTree &tree, const QString &) { keep(tree, "012345", text); });
        };
        const auto part = [&](const char *name, const Prepare &make) {
            row(name, 0, [=](const TemporaryTree &tree, const QString &file) {
                keep(tree, "012345");
                QFile::remove(file);
                make(tree, file);
            });
        };
        row("nothing", 0, [](const TemporaryTree &, const QString &) {});
        row("a beginning", 6, [](const TemporaryTree &tree, const QString &) { keep(tree, "012345"); });
        row("all of it", 10, [](const TemporaryTree &tree, const QString &) { keep(tree, Text); });
        row("more than all", 0, [](const TemporaryTree &tree, const QString &) { keep(tree, Text + '!'); });
        validator("killed before the validator", "");
        validator("killed within the validator", "\"v");
        validator("a header more", "\"v1\"\r\nX: y");
        validator("endless", '"' + QByteArray(5000, 'x') + '"');
        part("link", [](const TemporaryTree &tree, const QString &) {
            tree.link("root/" + Hash + ".part", tree.path("precious"));
        });
        part("dangling link", [](const TemporaryTree &tree, const QString &) {
            tree.link("root/" + Hash + ".part", tree.path("nowhere"));
        });
        part("second name", [](const TemporaryTree &tree, const QString &file) {
            QVERIFY(::link(QFile::encodeName(tree.path("precious")).constData(),
                           QFile::encodeName(file).constData())
                    == 0);
        });
        part("folder", [](const TemporaryTree &, const QString &file) { QDir().mkpath(file + "/in"); });
        part("pipe", [](const TemporaryTree &, const QString &file) {
            QVERIFY(::mkfifo(QFile::encodeName(file).constData(), 0600) == 0);
        });
        part("writable by others", [](const TemporaryTree &tree, const QString &) {
            tree.write("root/" + Hash + ".part", "012345", 0666);
        });
        row("validator that is a pipe", 0, [](const TemporaryTree &tree, const QString &) {
            keep(tree, "012345");
            const QString file = tree.path("root/" + Hash + ".validator");
            QVERIFY(QFile::remove(file) && ::mkfifo(QFile::encodeName(file).constData(), 0600) == 0);
        });
    }

    void taken()
    {
        QFETCH(Prepare, prepare);
        QFETCH(qint64, kept);
        const TemporaryTree tree;
        tree.write("precious", Validator, 0600);
        prepare(tree, partIn(tree));
        auto part = PartialDownload::take(tree.path("root"), Hash.toUpper(), Text.size());
        QVERIFY(part);
        QCOMPARE(part->kept(), kept);
        QCOMPARE(part->isContinued(), kept > 0);
        QVERIFY(!PartialDownload::take(tree.path("root"), Hash, -1)); // one at a time
        part.reset();
        QCOMPARE(QFileInfo::exists(tree.path("root")), kept > 0);

        part = PartialDownload::take(tree.path("root"), Hash, Text.size());
        QVERIFY(part->startAgain(Validator));
        QVERIFY(writeAll(part->descriptor(), "01234", 5));
        part->letGo();
        part = PartialDownload::take(tree.path("root"), Hash, Text.size());
        QCOMPARE(part->kept(), 5);
        QVERIFY(part->moveTo(tree.path("payload")));
        QCOMPARE(tree.read("payload"), "01234");
        QCOMPARE(tree.read("precious"), Validator);
        QVERIFY(!QFileInfo::exists(tree.path("root")) && !QFileInfo::exists(tree.path("nowhere")));
    }

    void refused()
    {
        const TemporaryTree tree;
        const QString shared = tree.directory("shared");
        ::chmod(QFile::encodeName(shared).constData(), 0777);
        tree.write("shared/" + Hash + ".part", "x");
        for (const QString &root :
             {QString(), shared, tree.link("link", tree.directory("real")), tree.write("file", "")}) {
            QVERIFY2(!PartialDownload::take(root, Hash, 10), qPrintable(root));
            sweepDownloads(root);
        }
        QVERIFY(QFileInfo::exists(tree.path("shared/" + Hash + ".part")));
        for (const QString &hash :
             {QString(), Hash.mid(1), Hash + 'a', QString(64, 'g'), "../" + Hash.mid(3)})
            QVERIFY2(!PartialDownload::take(tree.path("root"), hash, 10), qPrintable(hash));
    }

    void otherFileSystem()
    {
        const QTemporaryDir elsewhere("/dev/shm/XXXXXX");
        const TemporaryTree tree;
        struct stat here, there;
        if (!elsewhere.isValid() || ::stat(QFile::encodeName(tree.path()).constData(), &here) != 0
            || ::stat(QFile::encodeName(elsewhere.path()).constData(), &there) != 0
            || here.st_dev == there.st_dev)
            QSKIP("there is no second file system here");
        keep(tree, Text);
        QVERIFY(PartialDownload::take(tree.path("root"), Hash, 10)->moveTo(elsewhere.filePath("payload")));
        QCOMPARE(TemporaryTree::contents(elsewhere.filePath("payload")), Text);
        QVERIFY(!QFileInfo::exists(tree.path("root")));
    }

    void swept()
    {
        const TemporaryTree tree;
        keep(tree, "held");
        const auto held = PartialDownload::take(tree.path("root"), Hash, 10);
        tree.write("root/theirs.part", "x");
        const auto setAge = [](const QString &path, int days) {
            const timespec time{::time(nullptr) - days * 24 * 60 * 60, 0};
            const timespec times[]{time, time};
            ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0);
        };
        setAge(partIn(tree), 20);
        const auto file = [&](char digit, int days) {
            setAge(tree.write("root/" + QString(64, digit) + ".part", "x"), days);
            tree.write("root/" + QString(64, digit) + ".validator", Validator);
        };
        for (int i = 1; i < 6; ++i)
            file(char('0' + i), i);
        tree.write("root/" + QString(64, '9') + ".validator", Validator); // of nothing
        sweepDownloads(tree.path("root"));
        const auto left = [&] {
            QStringList names;
            for (const QString &name : QDir(tree.path("root")).entryList(QDir::Files))
                names += name.left(2) + QFileInfo(name).suffix().left(1);
            return names.join(' ');
        };
        QCOMPARE(left(), "11p 11v 22p 22v 33p 33v 44p 44v " + Hash.left(2) + "p " + Hash.left(2) + "v thp");
        file('1', 15);
        file('2', -15); // a clock that was wrong
        sweepDownloads(tree.path("root"));
        QCOMPARE(left(), "33p 33v 44p 44v " + Hash.left(2) + "p " + Hash.left(2) + "v thp");
        for (const char digit : {'1', '2', '3'}) { // 6 GiB each, without a block on the disk
            file(digit, digit - '0');
            QVERIFY(QFile::resize(tree.path("root/" + QString(64, digit) + ".part"), qint64(6) << 30));
            setAge(tree.path("root/" + QString(64, digit) + ".part"), digit - '0');
        }
        sweepDownloads(tree.path("root"));
        QCOMPARE(left(), "11p 11v 22p 22v 44p 44v " + Hash.left(2) + "p " + Hash.left(2) + "v thp");
    }

    void sweptWhileAnotherBegins()
    {
        for (const bool isValidatorAlone : {false, true}) {
            const TemporaryTree tree;
            keep(tree, "012345");
            tree.write("root/other", ""); // which keeps the folder
            const timespec longAgo[2]{};
            ::utimensat(AT_FDCWD, QFile::encodeName(partIn(tree)).constData(), longAgo, 0);
            if (isValidatorAlone)
                QFile::remove(partIn(tree));
            std::shared_ptr<PartialDownload> begun;
            beforeLock = [&] {
                PartialDownload::take(tree.path("root"), Hash, 10)->discard();
                begun = PartialDownload::take(tree.path("root"), Hash, 10);
                QVERIFY(begun->startAgain(Validator) && writeAll(begun->descriptor(), "01234", 5));
            };
            sweepDownloads(tree.path("root"));
            QVERIFY(begun);
            begun.reset();
            QCOMPARE(PartialDownload::take(tree.path("root"), Hash, 10)->kept(), 5);
        }
    }

    // Whoever has the file has its names, too, until he lets it go, whatever others do at that moment.
    void handedOn()
    {
        const TemporaryTree tree;
        std::atomic<int> running = 2, held = 0, faults = 0;
        const auto load = [&] {
            for (int i = 0; held < 600; ++i) {
                const auto part = PartialDownload::take(tree.path("root"), Hash, 10);
                if (!part)
                    continue;
                ++held;
                const timespec longAgo[2]{};
                const bool began = part->startAgain(Validator) && writeAll(part->descriptor(), "01234", 5)
                    && ::futimens(part->descriptor(), longAgo) == 0;
                std::this_thread::yield();
                const QString validator = tree.path("root/" + Hash + ".validator");
                if (!began || TemporaryTree::contents(part->location()) != "01234"
                    || TemporaryTree::contents(validator) != Validator)
                    ++faults;
                if (i % 3 == 0)
                    part->moveTo(tree.path("payload"));
                else if (i % 3 == 1)
                    part->discard();
            }
            --running;
        };
        std::thread first(load), second(load);
        while (running > 0)
            sweepDownloads(tree.path("root"));
        first.join();
        second.join();
        QCOMPARE(faults, 0);
    }

    void updates_data()
    {
        QTest::addColumn<QByteArray>("kept");
        QTest::addColumn<Answers>("answers");
        QTest::addColumn<int>("status"); // that nothing can be unpacked of it means that it came
        QTest::addColumn<QString>("asks");
        QTest::addColumn<QByteArray>("left");
        const auto row = [](const char *name, const QByteArray &kept, const Answers &answers, int status,
                            const QString &asks, const QByteArray &left = {}) {
            QTest::newRow(name) << kept << answers << status << asks << left;
        };
        const int came = ZELDownloadExtractionFailed, failed = ZELDownloadFailed;
        row("the rest", "012345", {rest()}, came, "06");
        row("nothing is missing", Text, {}, came, "");
        row("nothing is missing, but it is wrong", "abcdefghij", {whole()}, came, "0");
        row("a wrong beginning", "abcdef", {rest(), whole()}, came, "06 0");
        row("a wrong server", "012345", {rest("abcd"), whole("abcdefghij")}, failed, "06 0");
        row("broken off", {}, {whole(Text, 4)}, failed, "0 04 04", "0123");
        row("broken off, as before", "012345", {{.dropAt = TestServer::BeforeHead}}, failed, "06 06 06",
            "012345");
        row("busy", "012345", {{.status = 503, .body = "busy", .framing = TestServer::Framing::Chunked}},
            failed, "06 06 06 0", "012345");
        row("another page", "012345", {{.body = "Log in"}}, failed, "06", "012345");
        row("another page, longer", "012345", {{.body = "Please log in"}}, failed, "06", "012345");
        const auto chunked = [](Answer answer) {
            answer.framing = TestServer::Framing::Chunked;
            return answer;
        };
        row("page without a length", "012345", {chunked({.body = "Log in"})}, failed, "06 06 06", "012345");
        row("whole without a length", "012345", {chunked(whole())}, came, "06");
        row("another without a length", "012345", {chunked(whole("abcdefghij"))}, failed, "06", "012345");
        row("whole of the same version", "012345", {{.status = 416}, whole()}, came, "06 0");
        row("wrong pieces", {}, {whole(Text, 6), rest("abcd"), whole()}, came, "0 06 0");
        Answer longer = chunked(whole(Text + '!'));
        longer.drip = std::chrono::milliseconds(1); // byte by byte
        row("longer than it may be", {}, {longer}, failed, "0");
    }

    void updates()
    {
        QFETCH(QByteArray, kept);
        QFETCH(Answers, answers);
        QFETCH(int, status);
        QFETCH(QString, asks);
        QFETCH(QByteArray, left);
        const TemporaryTree tree;
        if (!kept.isNull())
            keep(tree, kept);
        TestServer server;
        server.answer("/file", answers);
        QCOMPARE(update(tree, server), status);
        QStringList asked; // from which byte on
        for (const TestServer::Request &request : server.requests())
            asked += '0' + request.headers.value("range").mid(6).chopped(request.headers.contains("range"));
        QCOMPARE(asked.join(' '), asks);
        QCOMPARE(TemporaryTree::contents(partIn(tree)), left);
        QCOMPARE(QFileInfo::exists(tree.path("root")), !left.isEmpty());
        QVERIFY(QDir(tree.path("staging")).isEmpty());
    }

    void cancelled()
    {
        const TemporaryTree tree;
        TestServer server;
        Answer stalled = whole();
        stalled.stallAt = 6;
        server.answer("/file", {stalled, rest()});
        const auto job = UpdateJob::create(inputs(tree, server), {}, {});
        job->resume();
        QTRY_COMPARE(job->countOfBytesReceived(), 6);
        // Meanwhile another process loads the same file, all of it and elsewhere.
        TestServer second;
        second.answer("/file", {whole()});
        QCOMPARE(update(tree, second), ZELDownloadExtractionFailed);
        job->cancel();
        QTRY_VERIFY(QDir(tree.path("staging")).isEmpty());
        QCOMPARE(TemporaryTree::contents(partIn(tree)), "012345");
        QCOMPARE(update(tree, server), ZELDownloadExtractionFailed);
        QCOMPARE(server.requests().last().headers["range"], "bytes=6-");
    }

    // As after Cancel, with Download right behind it.
    void waitsForOneThatEnds()
    {
        const TemporaryTree tree;
        keep(tree, "012345");
        TestServer server;
        Answer stalled = rest();
        stalled.stallAt = TestServer::BeforeHead;
        server.answer("/file", {stalled});
        auto ending = PartialDownload::take(tree.path("root"), Hash, Text.size());
        const auto job = UpdateJob::create(inputs(tree, server), {}, {});
        job->resume();
        QTRY_VERIFY(!QDir(tree.path("staging")).isEmpty());
        ending.reset();
        QVERIFY(server.waitForRequests(1));
        QCOMPARE(server.requests().last().headers["range"], "bytes=6-");
        QCOMPARE(job->countOfBytesReceived(), 6); // before anything has come
        job->cancel();
        QTRY_VERIFY(QDir(tree.path("staging")).isEmpty());
    }

private:
    static UpdateJob::Inputs inputs(const TemporaryTree &tree, const TestServer &server)
    {
        const QVariantMap record{{"build", 2},
                                 {"file", server.url("/file")},
                                 {"hash", MD5FromData(Text)},
                                 {"sha256", Hash},
                                 {"size", Text.size()}};
        return {.offer = CheckResult::fromMap({{"update", record}}),
                .installedBundle = tree.path("installed.app"),
                .stagingRoot = tree.path("staging"),
                .downloadRoot = tree.path("root"),
                .pauses = {std::chrono::milliseconds(1), std::chrono::milliseconds(1)}};
    }

    static int update(const TemporaryTree &tree, const TestServer &server)
    {
        std::atomic<int> status = -1;
        const auto job = UpdateJob::create(inputs(tree, server), {},
                                           [&](qint64 code, const QString &) { status = int(code); });
        job->resume();
        [&] { QTRY_VERIFY_WITH_TIMEOUT(status >= 0, 30'000); }();
        return status;
    }
};

QTEST_GUILESS_MAIN(tst_PartialDownload)

#include "tst_PartialDownload.moc"
