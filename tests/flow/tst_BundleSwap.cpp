#include "host/BundleSwap.h"

#include "support/TemporaryTree.h"

#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// What goes wrong: the `number`th of the calls below, from 1, fails with `error` or kills the process.
struct Fault {
    int number = 0;
    int error = 0; // 0: kill
    bool canExchange = true;
    int calls = 0;
};
Fault fault;

// Whether this call is the one that fails.
bool fails()
{
    if (++fault.calls != fault.number)
        return false;
    if (fault.error == 0)
        _exit(1);
    errno = fault.error;
    return true;
}

int renamed(int fromFolder, const char *from, int toFolder, const char *to, unsigned flags)
{
    return fails() ? -1 : int(::syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
}

} // namespace

// These take the place of the system's in this program. They are exported for the C++ library's calls.

extern "C" Q_DECL_EXPORT int rename(const char *from, const char *to) noexcept
{
    return renamed(AT_FDCWD, from, AT_FDCWD, to, 0);
}

extern "C" Q_DECL_EXPORT int renameat2(int fromFolder, const char *from, int toFolder, const char *to,
                                       unsigned flags) noexcept
{
    if (fault.canExchange)
        return renamed(fromFolder, from, toFolder, to, flags);
    errno = fault.error == ENOSYS ? ENOSYS : EINVAL; // as systems say it in different words
    return -1;
}

extern "C" Q_DECL_EXPORT int syncfs(int) noexcept
{
    return fails() ? -1 : 0;
}

extern "C" Q_DECL_EXPORT dirent *readdir(DIR *folder)
{
    static const auto real = reinterpret_cast<dirent *(*)(DIR *)>(dlsym(RTLD_NEXT, "readdir"));
    return fails() ? nullptr : real(folder);
}

extern "C" Q_DECL_EXPORT int mkdir(const char *path, mode_t mode) noexcept
{
    return fails() ? -1 : int(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

// The example host's exchange of bundles: code that others copy.
class BundleSwapTest : public QObject
{
    Q_OBJECT

    // An installed bundle, and a new one that is to take its place.
    struct Scene {
        explicit Scene(const QString &staging)
            : folder(staging + "/swap-XXXXXX")
            , fresh(folder.filePath("Patched.app").toStdString())
        {
            tree.write("My App.app/Contents/old", "old");
            fs::create_directories(fresh / "Contents/closed");
            fs::copy_file("/bin/true", fresh / "Contents/program");
            fs::create_symlink("program", fresh / "Contents/link");
            fs::permissions(fresh / "Contents/closed", fs::perms(0555));
        }
        const QTemporaryDir folder;
        const TemporaryTree tree;
        const fs::path fresh;
        const fs::path installed = tree.path("My App.app").toStdString();
    };

private slots:
    void cleanup() { fault = {}; }

    void newBundleTakesThePlace_data() { addPlaces(); }

    void newBundleTakesThePlace()
    {
        QFETCH(QString, staging);
        QFETCH(bool, canExchange);
        const auto &[folder, tree, fresh, installed] = Scene(staging);
        tree.write(".My App.app.new/of an earlier attempt", "");
        tree.write(".My App.app.previous/of an earlier update", "");

        fault = {.canExchange = canExchange};
        QVERIFY(!swapBundles(fresh, installed));
        QVERIFY(isFresh(installed));
        QVERIFY(isOld(previousBundle(installed)));
        QVERIFY(dropPreviousBundle(installed));
        QVERIFY(!dropPreviousBundle(installed));
        QCOMPARE(names(tree), QStringList{"My App.app"});
    }

    void failureLosesNothing_data() { addPlaces(); }

    // Each call fails once, with each error that stands for something else elsewhere.
    void failureLosesNothing()
    {
        QFETCH(QString, staging);
        QFETCH(bool, canExchange);
        for (const int error : {EIO, EINVAL, ENOSYS, ENOSPC, EXDEV}) {
            bool hasFailed = true;
            for (int number = 1; hasFailed; ++number) {
                const auto &[folder, tree, fresh, installed] = Scene(staging);
                fault = {.number = number, .error = error, .canExchange = canExchange};
                const bool isDone = !swapBundles(fresh, installed);
                hasFailed = fault.calls >= number;
                fault = {};
                QVERIFY2(isDone
                             ? isFresh(installed) && isOld(previousBundle(installed))
                             : isOld(installed) && isFresh(fresh) && names(tree) == QStringList{"My App.app"},
                         qPrintable(QString("call %1, error %2").arg(number).arg(error)));
            }
        }
    }

    void killedSwapIsRecovered_data() { addPlaces(); }

    void killedSwapIsRecovered()
    {
        QFETCH(QString, staging);
        QFETCH(bool, canExchange);
        int status = 1;
        for (int number = 1; status != 0; ++number) {
            const auto &[folder, tree, fresh, installed] = Scene(staging);
            const pid_t child = fork();
            if (child == 0) {
                fault = {.number = number, .canExchange = canExchange};
                swapBundles(fresh, installed);
                _exit(0);
            }
            QCOMPARE(waitpid(child, &status, 0), child);
            QVERIFY(!canExchange || isOld(installed) || isFresh(installed));
            const bool wasGone = !fs::exists(installed);
            const fs::path previous = previousBundle(installed);
            QCOMPARE(installedBundle(previous), wasGone ? installed : previous);
            QVERIFY2(isOld(installed) || isFresh(installed), qPrintable(QString("call %1").arg(number)));
            QVERIFY(!swapBundles(Scene(staging).fresh, installed));
            QVERIFY(isFresh(installed));
        }
    }

    void refusals()
    {
        const TemporaryTree tree;
        tree.write("Installed.app/file", "installed");
        tree.write("Fresh.app/file", "fresh");
        fs::create_directory_symlink("Fresh.app", tree.path("Link.app").toStdString());
        for (const auto &[fresh, installed] :
             {std::pair("missing.app", "Installed.app"), std::pair("Fresh.app", "Missing.app"),
              std::pair("Fresh.app", "elsewhere/Installed.app"), std::pair("Link.app", "Installed.app"),
              std::pair("Fresh.app", "Link.app"), std::pair("Fresh.app/file", "Installed.app")}) {
            QVERIFY(swapBundles(tree.path(fresh).toStdString(), tree.path(installed).toStdString()));
            QCOMPARE(tree.read("Installed.app/file"), "installed");
            QCOMPARE(tree.read("Fresh.app/file"), "fresh");
        }
        QVERIFY(!swapObstacle(tree.path("Installed.app").toStdString()));
        QVERIFY(swapObstacle("/proc/Installed.app")); // a folder that takes no new ones, also for root
    }

private:
    static void addPlaces()
    {
        QTest::addColumn<QString>("staging");
        QTest::addColumn<bool>("canExchange");

        for (const bool canExchange : {true, false}) {
            const char *how = canExchange ? "exchange" : "two steps";
            QTest::addRow("%s, same file system", how) << QDir::tempPath() << canExchange;
            if (QFileInfo("/dev/shm").isWritable())
                QTest::addRow("%s, another file system", how) << "/dev/shm" << canExchange;
        }
    }

    static bool isFresh(const fs::path &bundle)
    {
        const QString contents = QString::fromStdString((bundle / "Contents").string());
        return TemporaryTree::linkTarget(contents + "/link") == "program"
            && TemporaryTree::mode(contents + "/program") == 0755
            && TemporaryTree::mode(contents + "/closed") == 0555
            && fs::file_size(bundle / "Contents/program") == fs::file_size("/bin/true")
            && !fs::exists(bundle / "Contents/old");
    }

    static bool isOld(const fs::path &bundle)
    {
        return fs::exists(bundle / "Contents/old") && !fs::exists(bundle / "Contents/program");
    }

    static QStringList names(const TemporaryTree &tree)
    {
        return QDir(tree.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
};

QTEST_GUILESS_MAIN(BundleSwapTest)
#include "tst_BundleSwap.moc"
