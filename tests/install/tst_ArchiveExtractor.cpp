#include "install/ArchiveExtractor.h"
#include "support/DeepFolder.h"
#include "support/LogCapture.h"
#include "support/TemporaryTree.h"
#include "support/ZipMaker.h"

#include <csignal>
#include <QtTest>
#include <sys/wait.h>
#include <thread>

struct Result {
    int calls = 0;
    bool ok = false;
    QString path;
    ZELError error;
    QStringList log; // of the system
};

static Result extract(const QString &file, const QString &directory, const zel::ExtractOptions &options = {})
{
    Result result;
    const LogCapture capture;
    zel::extractArchive(
        file, directory,
        [&](bool ok, const QString &path, const ZELError &error) {
            result = {result.calls + 1, ok, path, error, {}};
        },
        options);
    result.log = capture.lines("zel.system");
    return result;
}

class tst_ArchiveExtractor : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        std::signal(SIGUSR2, SIG_IGN);
        ::dup2(STDERR_FILENO, 100); // a descriptor that is inherited
        std::signal(SIGPIPE, SIG_DFL); // one that comes through ends the test
    }

    void oddPaths_data()
    {
        QTest::addColumn<QString>("name");
        for (const char *name : {"'single' \"double\"", "$HOME `id` (e) <f> *;b&c|d", "-x",
                                 "\xc3\xa9\xe2\x82\xac \nback\\slash", "percent %s %1"})
            QTest::newRow(name) << QString::fromUtf8(name);
    }

    void oddPaths()
    {
        QFETCH(QString, name);
        const TemporaryTree tree;
        const std::vector<ZipItem> items = {
            ZipMaker::folder("My App.app/"),
            {.name = "My App.app/run", .data = QByteArray(600'000, 'r'), .mode = S_IFREG | 0755, .method = 0},
            ZipMaker::link("My App.app/link", "run"),
        };
        tree.write(name, ZipMaker::make(items));
        // Relative, so that a leading "-" is the first character that the tool sees.
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(tree.directory("work")));
        const QString archive = "../" + name;
        const Result result = extract(archive, name);
        QVERIFY(QDir::setCurrent(before));

        QCOMPARE(result.calls, 1);
        QCOMPARE(result.error.message, QString());
        QVERIFY(result.ok);
        QCOMPARE(result.path, name + "/My App.app");
        const QString bundle = tree.path("work/" + result.path);
        QVERIFY(TemporaryTree::contents(bundle + "/run") == items[1].data);
        QCOMPARE(TemporaryTree::mode(bundle + "/run"), 0755);
        QCOMPARE(TemporaryTree::linkTarget(bundle + "/link"), QByteArray("run"));
        QCOMPARE(result.log, QStringList());
    }

    void bundleChoice_data()
    {
        QTest::addColumn<QByteArrayList>("names");
        QTest::addColumn<QString>("found");
        const auto row = [](const char *name, const QByteArrayList &names, const QString &found = {}) {
            QTest::newRow(name) << names << found;
        };
        row("on top", {"A.app/x"}, "A.app");
        row("nested", {"one/two/A.app/x"}, "one/two/A.app");
        row("outer before inner", {"A.app/B.app/x"}, "A.app");
        row("several dots", {"A.1..app/x"}, "A.1..app");
        row("link to nothing", {"A.app@x"});
        row("link to a folder", {"x/file", "A.app@x"});
        row("link to a bundle, and it", {"x/file", "a/A.app@../x", "b/B.app/x"}, "b/B.app");
        row("file", {"A.app"});
        row("file and bundle", {"A.app", "B.app/x"}, "B.app");
        row("not through a link", {"a/x.app/y", "b@a"}, "a/x.app");
        row("other case", {"A.APP/x", "B.App/x"});
        row("only the extension", {".app/x"});
        row("not at the end", {"A.app.old/x", "Bapp/x", "C.app2"});
        row("nothing", {});
    }

    // As deeply as bundles and archives may be nested.
    void bundlesAreNotSoughtTooDeeply()
    {
        const TemporaryTree tree;
        const QString tool = tree.write("tool", "#!/bin/sh\ncat >/dev/null", 0755);
        const QString archive = tree.write("archive", {});
        const zel::FileDescriptor deepest = makeDeepFolder(tree.directory("out"), 128);
        QCOMPARE(::mkdirat(deepest.get(), "A.app", 0755), 0);
        const QString found = tree.path("out/") + QString("d/").repeated(128) + "A.app";
        QCOMPARE(extract(archive, tree.path("out"), {.tool = tool}).path, found);
        QVERIFY(QDir().rename(tree.path("out"), tree.path("inner")));
        QVERIFY(QDir().rename(tree.path("inner"), tree.directory("out") + "/d"));
        QCOMPARE(extract(archive, tree.path("out"), {.tool = tool}).path, QString());
    }

    void bundleChoice()
    {
        QFETCH(QByteArrayList, names);
        QFETCH(QString, found);
        const TemporaryTree tree;
        std::vector<ZipItem> items;
        for (const QByteArray &name : names) {
            const QByteArrayList link = name.split('@');
            items.push_back(link.size() == 2 ? ZipMaker::link(link[0], link[1]) : ZipItem{.name = name});
        }
        const QString archive = tree.write("archive", ZipMaker::make(items));
        const Result result = extract(archive, tree.directory("out"));
        QVERIFY(result.ok); // even without a bundle
        QCOMPARE(result.path, found.isNull() ? QString() : tree.path("out/" + found));
        QCOMPARE(result.path.isNull(), found.isNull());
        QCOMPARE(result.error.message,
                 found.isNull() ? "Extraction failed. Unable to find payload" : QString());
    }

    void refusedArchive()
    {
        const TemporaryTree tree;
        const QString archive = tree.write("archive", ZipMaker::make({{.name = "../A.app"}}));
        const Result result = extract(archive, tree.path("out"));
        QCOMPARE(result.calls, 1);
        QVERIFY(!result.ok && result.path.isNull());
        QCOMPARE(result.error.message, "Extraction failed. Invalid termination status - 1");
        QCOMPARE(result.error.domain, "com.corrand.zelupdater");
        QCOMPARE(result.log, QStringList{"bad termination status"});
        QVERIFY(!QFileInfo::exists(tree.path("A.app")));
    }

    void misbehavingTools_data()
    {
        QTest::addColumn<QByteArray>("script"); // null: there is no tool
        QTest::addColumn<QString>("message"); // empty: success
        QTest::addColumn<QStringList>("log");

        auto row = [](const char *title, const QByteArray &script, const QString &message,
                      const QStringList &log = {}) { QTest::newRow(title) << script << message << log; };
        const QString broken = "Failed to write data to pipe with error Broken pipe";
        const QString bad = "bad termination status";
        const QString status = "Extraction failed. Invalid termination status - %1";
        row("dies early", "head -c 1 >/dev/null; exit 3", status.arg(3), {broken, bad});
        row("reads nothing", "exit 4", status.arg(4), {broken, bad});
        row("fails at the end", "cat >/dev/null; exit 5", status.arg(5), {bad});
        row("killed while reading", "head -c 300000 >/dev/null; kill -15 $$", status.arg(15), {broken, bad});
        row("closes its input, then waits", "exec <&-; exit 0", "Extraction failed. 0 of 1000000 bytes",
            {broken});
        row("reads one chunk", "dd bs=262144 count=1 iflag=fullblock of=/dev/null 2>/dev/null",
            "Extraction failed. 262144 of 1000000 bytes", {broken});
        row("missing", {}, "Extraction failed. Error launching");
        row("reads all", "[ $(wc -c) = 1000000 ]", {});
        row("wants its arguments", "cat >/dev/null; [ \"$1 $2 $3 ${4##*/} $#\" = '-x -k - out 4' ]", {});
        // The test blocks and ignores some signals: none of it must reach the tool. (The C library ignores
        // signals 32 and 33 in what it spawns.)
        row("wants no other descriptors", "cat >/dev/null; [ ! -e /proc/$$/fd/100 ]", {});
        row("wants fresh signals",
            "cat >/dev/null; ! grep -qE '^Sig(Blk|Ign):.*[1-9a-f].{0,6}$' /proc/self/status", {});
    }

    void misbehavingTools()
    {
        QFETCH(QByteArray, script);
        QFETCH(QString, message);
        QFETCH(QStringList, log);
        const TemporaryTree tree;
        const QString archive = tree.write("archive", QByteArray(1'000'000, 'z'));
        tree.directory("out/A.app"); // from before
        const QString tool =
            script.isNull() ? tree.path("missing") : tree.write("tool", "#!/bin/bash\n" + script, 0755);
        const Result result = extract(archive, tree.path("out"), {.tool = tool});
        QCOMPARE(result.calls, 1);
        QCOMPARE(result.error.message, message);
        QCOMPARE(result.ok, message.isEmpty());
        QCOMPARE(result.path, message.isEmpty() ? tree.path("out/A.app") : QString());
        QCOMPARE(result.log, log);
    }

    void hangingTools_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<bool>("ended");
        const QByteArray hang = "exec sleep 1000";
        QTest::newRow("reads nothing") << hang << true;
        QTest::newRow("reads no more") << "head -c 300000 >/dev/null; " + hang << true;
        QTest::newRow("reads all, then hangs") << "cat >/dev/null; " + hang << true;
        QTest::newRow("closes its input, then hangs") << "exec <&-; " + hang << true;
        QTest::newRow("ends its reports, then hangs") << "exec 3>&-; cat >/dev/null; " + hang << true;
        QTest::newRow("says that all is well, then hangs") << "cat >/dev/null; printf 0 >&3; " + hang << true;
        QTest::newRow("reports progress")
            << QByteArray("cat >/dev/null; for i in {1..40}; do printf . >&3; sleep 0.05; done") << false;
    }

    void hangingTools()
    {
        QFETCH(QByteArray, script);
        QFETCH(bool, ended);
        const TemporaryTree tree;
        const QString archive = tree.write("archive", QByteArray(1'000'000, 'z'));
        const QString tool = tree.write("tool", "#!/bin/bash\n" + script, 0755);
        const Result result =
            extract(archive, tree.directory("out"),
                    {.tool = tool, .patience = std::chrono::milliseconds(ended ? 300 : 1500)});
        QCOMPARE(result.calls, 1);
        QCOMPARE(result.ok, !ended);
        QCOMPARE(result.error.message,
                 ended ? "Extraction failed. Invalid termination status - 9"
                       : "Extraction failed. Unable to find payload");
        QCOMPARE(result.log.contains("archive tool was ended: it made no progress"), ended);
    }

    // A tool that has come as far as to write into the pipe is ended from another thread.
    void stopped_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::newRow("while it is fed") << QByteArray("echo >\"${4%/*}/pipe\"; exec sleep 1000");
        QTest::newRow("while it works")
            << QByteArray("cat >/dev/null; echo >\"${4%/*}/pipe\"; exec sleep 1000");
        QTest::newRow("before it started") << QByteArray();
    }

    void stopped()
    {
        QFETCH(QByteArray, script);
        const TemporaryTree tree;
        const QString archive = tree.write("archive", QByteArray(1'000'000, 'z'));
        const QString tool =
            tree.write("tool", "#!/bin/bash\n" + (script.isNull() ? "exec sleep 1000" : script), 0755);
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path("pipe")).constData(), 0600), 0);
        std::stop_source stop;
        if (script.isNull())
            stop.request_stop();
        const std::jthread user([&] {
            if (!script.isNull() && TemporaryTree::contents(tree.path("pipe")) == "\n")
                stop.request_stop();
        });
        const Result result =
            extract(archive, tree.directory("out"), {.tool = tool, .stop = stop.get_token()});
        QCOMPARE(result.error.message, "Extraction failed. Invalid termination status - 9");
        QVERIFY(result.log.contains("archive tool was ended: extraction was stopped"));
    }

    // Whatever the host does with the exit status of its children.
    void hostsOfChildren_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<bool>("collects");
        QTest::newRow("ignores them") << 0 << false;
        QTest::newRow("wants no zombies") << int(SA_NOCLDWAIT) << false;
        QTest::newRow("collects them all") << int(SA_RESTART) << true;
    }

    void hostsOfChildren()
    {
        QFETCH(int, flags);
        QFETCH(bool, collects);
        const TemporaryTree tree;
        const QString good = tree.write("good", ZipMaker::make({{.name = "A.app/x", .data = "x"}}));
        const QString bad = tree.write("bad", ZipMaker::make({{.name = "../A.app"}}));
        const QString hanging = tree.write("hanging", "#!/bin/bash\nexec sleep 1000", 0755);
        const QString silent = tree.write("silent", "#!/bin/bash\ncat >/dev/null", 0755);
        struct sigaction action {
        };
        struct sigaction before;
        action.sa_flags = flags;
        action.sa_handler = collects ? [](int) { while (::waitpid(-1, nullptr, WNOHANG) > 0) { } }
                            : flags  ? SIG_DFL
                                     : SIG_IGN;
        QCOMPARE(::sigaction(SIGCHLD, &action, &before), 0);
        const Result fine = extract(good, tree.directory("good.out"));
        const Result refused = extract(bad, tree.directory("bad.out"));
        const Result ended = extract(good, tree.directory("ended.out"),
                                     {.tool = hanging, .patience = std::chrono::milliseconds(300)});
        const Result unknown = extract(good, tree.directory("unknown.out"), {.tool = silent});
        ::sigaction(SIGCHLD, &before, nullptr);
        QCOMPARE(fine.error.message, QString());
        QCOMPARE(fine.path, tree.path("good.out/A.app"));
        QCOMPARE(refused.error.message, "Extraction failed. Invalid termination status - 1");
        QCOMPARE(ended.error.message, "Extraction failed. Invalid termination status - 9");
        if (!collects) // else it is a question of who comes first
            QCOMPARE(unknown.error.message, "Extraction failed. Invalid termination status - -1");
    }

    void notLaunchable()
    {
        const TemporaryTree tree;
        const QString archive = tree.write("archive", "z");
        const QString message = "Extraction failed. Error launching";
        QCOMPARE(extract(archive, tree.path("out"), {.tool = tree.path("out")}).error.message, message);
        const QString closed = tree.write("tool", "#!/bin/sh", 0644);
        QCOMPARE(extract(archive, tree.path("out"), {.tool = closed}).error.message, message);
        QCOMPARE(extract(archive, tree.path("out"), {.tool = {}}).error.message, message);
    }

    void emptyArchive()
    {
        const TemporaryTree tree;
        tree.directory("out/A.app"); // from before
        const QString tool = tree.write("tool", "#!/bin/sh\ncat >/dev/null", 0755);
        const Result result = extract(tree.write("archive", {}), tree.path("out"), {.tool = tool});
        QCOMPARE(result.path, tree.path("out/A.app"));
    }

    void unreadableArchive()
    {
        const TemporaryTree tree;
        const QString failure = "Failed to read data from archive with error ";
        const QString status = "Extraction failed. Invalid termination status - 1";
        for (const auto &[archive, reason] : {std::pair(tree.path("missing"), "No such file or directory"),
                                              std::pair(tree.path(), "Is a directory")}) {
            const Result result = extract(archive, tree.path("out"));
            QCOMPARE(result.error.message, status);
            QCOMPARE(result.log.value(0), failure + reason);
        }
    }

    // After all the broken pipes above, the host's signals are as they were.
    void cleanupTestCase()
    {
        sigset_t mask, pending;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigpending(&pending);
        QVERIFY(sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGPIPE));
        QVERIFY(!sigismember(&pending, SIGPIPE));
        QVERIFY(std::signal(SIGPIPE, SIG_IGN) == SIG_DFL);
    }
};

QTEST_GUILESS_MAIN(tst_ArchiveExtractor)
#include "tst_ArchiveExtractor.moc"
