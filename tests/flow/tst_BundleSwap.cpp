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
        if (QFileInfo(QStringLiteral("/dev/shm")).isWritable())
            QTest::newRow("another file system") << QStringLiteral("/dev/shm");
    }

    void newBundleTakesThePlace()
    {
        QFETCH(QString, staging);
        const QTemporaryDir folder(staging + QStringLiteral("/swap-XXXXXX"));
        const fs::path fresh = folder.filePath(QStringLiteral("Patched.app")).toStdString();
        fs::create_directories(fresh / "Contents");
        fs::copy_file("/bin/true", fresh / "Contents/program");
        fs::create_symlink("program", fresh / "Contents/link");
        const TemporaryTree tree;
        tree.write(QStringLiteral("My App.app/Contents/old"), "old");
        tree.write(QStringLiteral(".My App.app.new/of an earlier attempt"), "");
        const fs::path installed = tree.path(QStringLiteral("My App.app")).toStdString();

        QVERIFY(!swapBundles(fresh, installed));
        QCOMPARE(TemporaryTree::linkTarget(tree.path(QStringLiteral("My App.app/Contents/link"))), "program");
        QCOMPARE(TemporaryTree::mode(tree.path(QStringLiteral("My App.app/Contents/program"))), 0755);
        QVERIFY(!fs::exists(installed / "Contents/old"));
        QVERIFY(fs::exists(previousBundle(installed) / "Contents/old"));
        QVERIFY(dropPreviousBundle(installed));
        QVERIFY(!dropPreviousBundle(installed));
        QCOMPARE(QDir(tree.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{QStringLiteral("My App.app")});
    }

    void failureLosesNothing_data()
    {
        QTest::addColumn<QString>("fresh");
        QTest::addColumn<QString>("installed");

        QTest::newRow("no new bundle") << "missing.app"
                                       << "Installed.app";
        QTest::newRow("no installed bundle") << "Fresh.app"
                                             << "elsewhere/Installed.app";
    }

    void failureLosesNothing()
    {
        QFETCH(QString, fresh);
        QFETCH(QString, installed);
        const TemporaryTree tree;
        tree.write(QStringLiteral("Installed.app/file"), "installed");
        tree.write(QStringLiteral("Fresh.app/file"), "fresh");
        QVERIFY(swapBundles(tree.path(fresh).toStdString(), tree.path(installed).toStdString()));
        QCOMPARE(tree.read(QStringLiteral("Installed.app/file")), "installed");
        QCOMPARE(tree.read(QStringLiteral("Fresh.app/file")), "fresh");
    }
};

QTEST_GUILESS_MAIN(BundleSwapTest)
#include "tst_BundleSwap.moc"
