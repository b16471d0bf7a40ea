#include "../../examples/host/BundleSwap.h"

#include "TemporaryTree.h"

#include <filesystem>

namespace fs = std::filesystem;

/// The example host's exchange of bundles: code that others copy.
class BundleSwapTest : public QObject
{
    Q_OBJECT

private slots:
    void newBundleTakesThePlace_data()
    {
        QTest::addColumn<QString>("staging");

        QTest::newRow("same file system") << QDir::tempPath();
        if (QFileInfo("/dev/shm").isWritable())
            QTest::newRow("another file system") << "/dev/shm";
    }

    void newBundleTakesThePlace()
    {
        QFETCH(QString, staging);
        const QTemporaryDir folder(staging + "/swap-XXXXXX");
        const fs::path fresh = folder.filePath("Patched.app").toStdString();
        fs::create_directories(fresh / "Contents");
        fs::copy_file("/bin/true", fresh / "Contents/program");
        fs::create_symlink("program", fresh / "Contents/link");
        const TemporaryTree tree;
        tree.write("My App.app/Contents/old", "old");
        tree.write(".My App.app.new/of an earlier attempt", "");
        tree.write(".My App.app.previous/of an earlier update", "");
        const fs::path installed = tree.path("My App.app").toStdString();

        QVERIFY(!swapBundles(fresh, installed));
        QCOMPARE(TemporaryTree::linkTarget(tree.path("My App.app/Contents/link")), "program");
        QCOMPARE(TemporaryTree::mode(tree.path("My App.app/Contents/program")), 0755);
        QVERIFY(!fs::exists(installed / "Contents/old"));
        QVERIFY(fs::exists(previousBundle(installed) / "Contents/old"));
        QVERIFY(dropPreviousBundle(installed));
        QVERIFY(!dropPreviousBundle(installed));
        QCOMPARE(QDir(tree.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{"My App.app"});
    }

    void failureLosesNothing()
    {
        const TemporaryTree tree;
        tree.write("Installed.app/file", "installed");
        tree.write("Fresh.app/file", "fresh");
        for (const auto &[fresh, installed] :
             {std::pair("missing.app", "Installed.app"), std::pair("Fresh.app", "Missing.app"),
              std::pair("Fresh.app", "elsewhere/Installed.app")}) {
            QVERIFY(swapBundles(tree.path(fresh).toStdString(), tree.path(installed).toStdString()));
            QCOMPARE(tree.read("Installed.app/file"), "installed");
            QCOMPARE(tree.read("Fresh.app/file"), "fresh");
        }
    }
};

QTEST_GUILESS_MAIN(BundleSwapTest)
#include "tst_BundleSwap.moc"
