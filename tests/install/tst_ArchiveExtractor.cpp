#include "install/ArchiveExtractor.h"
#include "support/Case.h"
#include "support/DeepFolder.h"
#include "support/LogCapture.h"
#include "support/TemporaryTree.h"
#include "support/ZipMaker.h"

#include <csignal>
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

// A megabyte, fed to a script; a bundle is in the folder from before.
static Result feed(const TemporaryTree &tree, const QByteArray &script, zel::ExtractOptions options = {})
{
    tree.directory("out/A.app");
    options.tool = tree.write("tool", "#!/bin/bash\n" + script, 0755);
    return extract(tree.write("archive", QByteArray(1'000'000, 'z')), tree.path("out"), options);
}

static const QString Status = "Extraction failed. Invalid termination status - %1";

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

    void oddPaths()
    {
        for (const QString name : {"'single' \"double\"", "$HOME `id` (e) <f> *;b&c|d", "-x",
                                   "\xc3\xa9\xe2\x82\xac \nback\\slash", "percent %s %1"}) {
            const Case current(name);
            const TemporaryTree tree;
            const std::vector<ZipItem> items = {
                ZipMaker::folder("My App.app/"),
                {.name = "My App.app/run",
                 .data = QByteArray(600'000, 'r'),
                 .mode = S_IFREG | 0755,
                 .method = 0},
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
        const std::tuple<const char *, QByteArrayList, QString> cases[] = {
            {"on top", {"A.app/x"}, "A.app"},
            {"nested", {"one/two/A.app/x"}, "one/two/A.app"},
            {"outer before inner", {"A.app/B.app/x"}, "A.app"},
            {"several dots", {"A.1..app/x"}, "A.1..app"},
            {"link to nothing", {"A.app@x"}, ""},
            {"link to a folder", {"x/file", "A.app@x"}, ""},
            {"link to a bundle, and it", {"x/file", "a/A.app@../x", "b/B.app/x"}, "b/B.app"},
            {"file", {"A.app"}, ""},
            {"file and bundle", {"A.app", "B.app/x"}, "B.app"},
            {"not through a link", {"a/x.app/y", "b@a"}, "a/x.app"},
            {"other case", {"A.APP/x", "B.App/x"}, ""},
            {"only the extension", {".app/x"}, ""},
            {"not at the end", {"A.app.old/x", "Bapp/x", "C.app2"}, ""},
            {"nothing", {}, ""},
        };
        for (const auto &[name, names, found] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            std::vector<ZipItem> items;
            for (const QByteArray &item : names) {
                const QByteArrayList link = item.split('@');
                items.push_back(link.size() == 2 ? ZipMaker::link(link[0], link[1]) : ZipItem{.name = item});
            }
            const QString archive = tree.write("archive", ZipMaker::make(items));
            const Result result = extract(archive, tree.directory("out"));
            QVERIFY(result.ok); // even without a bundle
            QCOMPARE(result.path, found.isEmpty() ? QString() : tree.path("out/" + found));
            QCOMPARE(result.path.isNull(), found.isEmpty());
            QCOMPARE(result.error.message,
                     found.isEmpty() ? "Extraction failed. Unable to find payload" : "");
        }
    }

    void misbehavingTools()
    {
        const QStringList broken{"Failed to write data to pipe with error Broken pipe"};
        const QStringList bad{"bad termination status"};
        const QStringList none;
        const std::tuple<const char *, QByteArray, QString, QStringList> cases[] = {
            {"dies early", "head -c 1 >/dev/null; exit 3", Status.arg(3), broken + bad},
            {"reads nothing", "exit 4", Status.arg(4), broken + bad},
            {"fails at the end", "cat >/dev/null; exit 5", Status.arg(5), bad},
            {"killed while reading", "head -c 300000 >/dev/null; kill -15 $$", Status.arg(15), broken + bad},
            {"closes its input, then waits", "exec <&-; exit 0", "Extraction failed. 0 of 1000000 bytes",
             broken},
            {"reads one chunk", "dd bs=262144 count=1 iflag=fullblock of=/dev/null 2>/dev/null",
             "Extraction failed. 262144 of 1000000 bytes", broken},
            {"reads all", "[ $(wc -c) = 1000000 ]", "", none},
            {"wants its arguments", "cat >/dev/null; [ \"$1 $2 $3 ${4##*/} $#\" = '-x -k - out 4' ]", "",
             none},
            // The test blocks and ignores some signals: none of it must reach the tool. (The C library
            // ignores signals 32 and 33 in what it spawns.)
            {"wants no other descriptors", "cat >/dev/null; [ ! -e /proc/$$/fd/100 ]", "", none},
            {"wants fresh signals",
             "cat >/dev/null; ! grep -qE '^Sig(Blk|Ign):.*[1-9a-f].{0,6}$' /proc/self/status", "", none},
        };
        for (const auto &[name, script, message, log] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const Result result = feed(tree, script);
            QCOMPARE(result.calls, 1);
            QCOMPARE(result.error.message, message);
            QCOMPARE(result.error.domain, message.isEmpty() ? "" : "com.corrand.zelupdater");
            QCOMPARE(result.ok, message.isEmpty());
            QCOMPARE(result.path, message.isEmpty() ? tree.path("out/A.app") : QString());
            QCOMPARE(result.log, log);
        }
    }

    void hangingTools()
    {
        const QByteArray hang = "exec sleep 1000";
        const std::tuple<const char *, QByteArray, bool> cases[] = {
            {"reads nothing", hang, true},
            {"reads no more", "head -c 300000 >/dev/null; " + hang, true},
            {"reads all, then hangs", "cat >/dev/null; " + hang, true},
            {"closes its input, then hangs", "exec <&-; " + hang, true},
            {"ends its reports, then hangs", "exec 3>&-; cat >/dev/null; " + hang, true},
            {"says that all is well, then hangs", "cat >/dev/null; printf 0 >&3; " + hang, true},
            {"reports progress", "cat >/dev/null; for i in {1..40}; do printf . >&3; sleep 0.05; done",
             false},
        };
        for (const auto &[name, script, ended] : cases) {
            const Case current(name);
            const std::chrono::milliseconds patience(ended ? 300 : 1500);
            const Result result = feed(TemporaryTree(), script, {.patience = patience});
            QCOMPARE(result.calls, 1);
            QCOMPARE(result.ok, !ended);
            QCOMPARE(result.error.message, ended ? Status.arg(9) : QString());
            QCOMPARE(result.log.contains("archive tool was ended: it made no progress"), ended);
        }
    }

    // A tool that has come as far as to write into the pipe is ended from another thread.
    void stopped()
    {
        const std::pair<const char *, QByteArray> cases[] = {
            {"while it is fed", "echo >\"${4%/*}/pipe\"; exec sleep 1000"},
            {"while it works", "cat >/dev/null; echo >\"${4%/*}/pipe\"; exec sleep 1000"},
            {"before it started", "exec sleep 1000"},
        };
        for (const auto &[name, script] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            QCOMPARE(::mkfifo(QFile::encodeName(tree.path("pipe")).constData(), 0600), 0);
            std::stop_source stop;
            const bool starts = script.contains("pipe");
            if (!starts)
                stop.request_stop();
            const std::jthread user([&] {
                if (starts && TemporaryTree::contents(tree.path("pipe")) == "\n")
                    stop.request_stop();
            });
            const Result result = feed(tree, script, {.stop = stop.get_token()});
            QCOMPARE(result.error.message, Status.arg(9));
            QVERIFY(result.log.contains("archive tool was ended: extraction was stopped"));
        }
    }

    // Whatever the host does with the exit status of its children.
    void hostsOfChildren()
    {
        const std::tuple<const char *, int, bool> cases[] = {
            {"ignores them", 0, false},
            {"wants no zombies", int(SA_NOCLDWAIT), false},
            {"collects them all", int(SA_RESTART), true},
        };
        for (const auto &[name, flags, collects] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const QString good = tree.write("good", ZipMaker::make({{.name = "A.app/x", .data = "x"}}));
            const QString bad = tree.write("bad", ZipMaker::make({{.name = "../A.app"}}));
            struct sigaction action {
            };
            struct sigaction before;
            action.sa_flags = flags;
            const auto collect = [](int) {
                const int error = errno;
                while (::waitpid(-1, nullptr, WNOHANG) > 0) { }
                errno = error;
            };
            action.sa_handler = collects ? +collect : flags ? SIG_DFL : SIG_IGN;
            QCOMPARE(::sigaction(SIGCHLD, &action, &before), 0);
            const Result fine = extract(good, tree.directory("good.out"));
            const Result refused = extract(bad, tree.directory("bad.out"));
            const Result ended = feed(tree, "exec sleep 1000", {.patience = std::chrono::milliseconds(300)});
            const Result unknown = feed(tree, "cat >/dev/null");
            ::sigaction(SIGCHLD, &before, nullptr);
            QCOMPARE(fine.error.message, QString());
            QCOMPARE(fine.path, tree.path("good.out/A.app"));
            QCOMPARE(refused.error.message, Status.arg(1));
            QCOMPARE(ended.error.message, Status.arg(9));
            if (!collects) // else it is a question of who comes first
                QCOMPARE(unknown.error.message, Status.arg(-1));
        }
    }

    void notLaunchable()
    {
        const TemporaryTree tree;
        const QString archive = tree.write("archive", "z");
        const QString closed = tree.write("tool", "#!/bin/sh", 0644);
        for (const QString &tool : {tree.path("missing"), tree.path(), closed, QString()}) {
            const Case current(tool);
            const Result result = extract(archive, tree.path("out"), {.tool = tool});
            QCOMPARE(result.error.message, "Extraction failed. Error launching");
            QCOMPARE(result.log, QStringList());
        }
    }

    void unreadableArchive()
    {
        const TemporaryTree tree;
        const QString failure = "Failed to read data from archive with error ";
        for (const auto &[archive, reason] : {std::pair(tree.path("missing"), "No such file or directory"),
                                              std::pair(tree.path(), "Is a directory")}) {
            const Result result = extract(archive, tree.path("out"));
            QCOMPARE(result.error.message, Status.arg(1));
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
