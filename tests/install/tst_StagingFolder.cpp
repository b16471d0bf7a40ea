#include "install/StagingFolder.h"
#include "support/Case.h"
#include "support/TemporaryTree.h"

using namespace zel;

class tst_StagingFolder : public QObject
{
    Q_OBJECT

private slots:
    void refusedRoots()
    {
        m_tree.directory("real");
        QFile::setPermissions(m_tree.directory("shared"), QFile::Permissions(0x7777));
        QList<std::pair<QString, QString>> cases{{QString(), "HOME is not set"},
                                                 {m_tree.link("link", "real"), "cannot use"},
                                                 {m_tree.path("link/"), "cannot use"},
                                                 {m_tree.path("shared"), "other users can write"},
                                                 {m_tree.write("file", "x"), "cannot make folder"},
                                                 {m_tree.path("file/x"), "cannot make folder"}};
        if (::geteuid() == 0) {
            const QString foreign = m_tree.directory("foreign");
            QVERIFY(::chown(QFile::encodeName(foreign).constData(), 12345, 12345) == 0);
            cases.append({foreign, "belongs to another user"});
        }
        for (const auto &[root, reason] : cases) {
            const Case current(root);
            std::shared_ptr<StagingFolder> folder;
            const ZELError error = StagingFolder::make(root, folder);
            QVERIFY2(error.message.contains(reason), qPrintable(error.message));
            QVERIFY(!folder);
            if (!QFileInfo(root).isDir())
                continue;
            const QString precious = root + "/precious";
            QVERIFY(QDir().mkdir(precious));
            sweepStaging(root);
            QVERIFY(QDir().rmdir(precious));
        }
    }

    void homes()
    {
        const QByteArray before = qgetenv("HOME");
        for (const char *home : {"/home/u/", "u", ""}) {
            qputenv("HOME", home);
            const QString usable = "/home/u/Library/Application Support/Wexmoor 7/Patch";
            QCOMPARE(stagingRoot(), *home == '/' ? usable : QString());
        }
        qputenv("HOME", before);
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
        for (const char *folder : {"deep", "deep/root"})
            QCOMPARE(TemporaryTree::mode(m_tree.path(folder)), 0700);
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
