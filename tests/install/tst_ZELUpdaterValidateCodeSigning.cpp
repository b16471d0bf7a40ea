#include "install/ZELUpdaterValidateCodeSigning.h"

#include "seal/BundleSeal.h"
#include "support/TemporaryTree.h"
#include "support/TestCertificate.h"

class tst_ZELUpdaterValidateCodeSigning : public QObject
{
    Q_OBJECT

    TemporaryTree m_tree;

private slots:
    void initTestCase()
    {
        const TestCertificate signer = makeTestCertificate(m_tree.path(), "signer");
        for (const QString &name : {QString("Good App.app"), QString("Changed.app")}) {
            m_tree.write(name + "/Contents/MacOS/app", "program");
            QVERIFY(!zel::sealBundle(m_tree.path(name), signer.keyFile, signer.certificateFile));
        }
        m_tree.write("Changed.app/Contents/MacOS/app", "other");
    }

    void bundles_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<bool>("valid");

        const QString good = m_tree.path("Good App.app");
        const QUrl withHost("file:/" + good); // the first folder of the path is the host
        QTest::newRow("good") << QUrl::fromLocalFile(good) << true;
        QTest::newRow("good, as a folder") << QUrl::fromLocalFile(good + '/') << true;
        QTest::newRow("changed") << QUrl::fromLocalFile(m_tree.path("Changed.app")) << false;
        QTest::newRow("missing") << QUrl::fromLocalFile(m_tree.path("Missing.app")) << false;
        QTest::newRow("a file") << QUrl::fromLocalFile(good + "/Contents/MacOS/app") << false;
        QTest::newRow("NUL in the path")
            << QUrl("file://" + m_tree.path("Good%20App.app%00/Missing.app")) << false;
        QTest::newRow("a host's file") << withHost << false;
        QTest::newRow("a path alone") << QUrl(good) << false;
        QTest::newRow("web address") << QUrl("https://host" + good) << false;
        QTest::newRow("empty") << QUrl() << false;
    }

    void bundles()
    {
        QFETCH(QUrl, url);
        QFETCH(bool, valid);
        QCOMPARE(ZELUpdaterValidateCodeSigning(url), valid);
    }

    void manyThreadsAtOnce()
    {
        const QUrl url = QUrl::fromLocalFile(m_tree.path("Good App.app"));
        std::atomic<int> valid = 0;
        QThreadPool pool;
        pool.setMaxThreadCount(4);
        for (int i = 0; i < 32; ++i)
            pool.start([&] { valid += ZELUpdaterValidateCodeSigning(url); });
        QVERIFY(pool.waitForDone());
        QCOMPARE(valid.load(), 32);
    }
};

QTEST_GUILESS_MAIN(tst_ZELUpdaterValidateCodeSigning)
#include "tst_ZELUpdaterValidateCodeSigning.moc"
