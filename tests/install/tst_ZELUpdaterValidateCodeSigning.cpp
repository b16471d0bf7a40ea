#include "install/ZELUpdaterValidateCodeSigning.h"

#include "support/Signing.h"
#include "support/TemporaryTree.h"

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
            QVERIFY(!sealWith(m_tree.path(name), signer));
        }
        m_tree.write("Changed.app/Contents/MacOS/app", "other");
    }

    void bundles()
    {
        const QString good = m_tree.path("Good App.app");
        const auto isValid = ZELUpdaterValidateCodeSigning;
        QVERIFY(isValid(QUrl::fromLocalFile(good)));
        QVERIFY(isValid(QUrl::fromLocalFile(good + '/')));
        for (const QString name : {"Changed.app", "Missing.app", "Good App.app/Contents/MacOS/app"})
            QVERIFY2(!isValid(QUrl::fromLocalFile(m_tree.path(name))), qPrintable(name));
        QVERIFY(!isValid(QUrl("file://" + m_tree.path("Good%20App.app%00/Missing.app"))));
        QVERIFY(!isValid(QUrl("file:/" + good))); // the first folder of the path is the host
        QVERIFY(!isValid(QUrl(good)));
        QVERIFY(!isValid(QUrl("https://host" + good)));
        QVERIFY(!isValid(QUrl()));
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
