#include "install/StagingFolder.h"
#include "support/TemporaryTree.h"

using namespace zel;

class tst_StagingFolder : public QObject
{
    Q_OBJECT

private slots:
    void refusedRoots_data()
    {
        QTest::addColumn<QString>("root");
        QTest::addColumn<QString>("reason");

        m_tree.directory("real");
        m_tree.directory("shared");
        QFile::setPermissions(m_tree.path("shared"), QFile::Permissions(0x7777));
        QTest::newRow("HOME is unset") << QString() << "HOME is not set";
        QTest::newRow("link") << m_tree.link("link", "real") << "cannot use";
        QTest::newRow("link, with a slash") << m_tree.path("link") + '/' << "cannot use";
        QTest::newRow("writable by others") << m_tree.path("shared") << "other users can write";
        QTest::newRow("file") << m_tree.write("file", "x") << "cannot make folder";
        if (::geteuid() == 0) {
            const QString foreign = m_tree.directory("foreign");
            QVERIFY(::chown(QFile::encodeName(foreign).constData(), 12345, 12345) == 0);
            QTest::newRow("another user's") << foreign << "belongs to another user";
        }
    }

    void refusedRoots()
    {
        QFETCH(QString, root);
        QFETCH(QString, reason);
        std::shared_ptr<StagingFolder> folder;
        const ZELError error = StagingFolder::make(root, folder);
        QVERIFY2(error.message.contains(reason), qPrintable(error.message));
        QVERIFY(!folder);
        if (!QFileInfo(root).isDir())
            return;
        const QString precious = root + "/precious";
        QVERIFY(QDir().mkdir(precious));
        sweepStaging(root);
        QVERIFY(QDir().rmdir(precious));
    }

    void homes_data()
    {
        QTest::addColumn<QByteArray>("home");
        QTest::addColumn<bool>("usable");
        QTest::newRow("absolute") << QByteArray("/home/u/") << true;
        QTest::newRow("relative") << QByteArray("u") << false;
        QTest::newRow("empty") << QByteArray("") << false;
    }

    void homes()
    {
        QFETCH(QByteArray, home);
        QFETCH(bool, usable);
        const QByteArray before = qgetenv("HOME");
        qputenv("HOME", home);
        const QString root = stagingRoot();
        qputenv("HOME", before);
        QCOMPARE(root, usable ? "/home/u/Library/Application Support/Wexmoor 7/Patch" : QString());
    }

    void foldersOutliveEverySweepWhileTheyAreHeld()
    {
        const QString root = m_tree.path("deep/root");
        std::shared_ptr<StagingFolder> held;
        QVERIFY(!StagingFolder::make(root, held));
        std::atomic<bool> done = false;
        std::thread sweeper([&] {
            while (!done)
                sweepStaging(root);
        });
        int lost = 0;
        for (int i = 0; i < 300; ++i) {
            std::shared_ptr<StagingFolder> folder;
            lost += StagingFolder::make(root, folder) || !QFileInfo(folder->path()).isDir();
        }
        done = true;
        sweeper.join();
        QCOMPARE(lost, 0);
        QVERIFY(QFileInfo(held->path()).isDir());
        QCOMPARE(TemporaryTree::mode(root), 0700);
        held.reset();
        m_tree.link("deep/root/link", m_tree.directory("elsewhere/folder"));
        sweepStaging(root);
        QVERIFY(!QFileInfo::exists(root));
        QVERIFY(QFileInfo(m_tree.path("elsewhere/folder")).isDir());
    }

private:
    const TemporaryTree m_tree;
};

QTEST_GUILESS_MAIN(tst_StagingFolder)
#include "tst_StagingFolder.moc"
