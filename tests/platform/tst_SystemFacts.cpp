#include "platform/SystemFacts.h"
#include "support/TemporaryTree.h"

using zel::SystemVersion;

class tst_SystemFacts : public QObject
{
    Q_OBJECT
private slots:
    void kernelReleases_data()
    {
        QTest::addColumn<QString>("release");
        QTest::addColumn<QList<qint64>>("expected");

        QTest::newRow("distribution") << "6.1.0-13-amd64" << QList<qint64>{6, 1, 0};
        QTest::newRow("patch") << "5.15.167.4-custom" << QList<qint64>{5, 15, 167};
        QTest::newRow("candidate") << "6.1-rc3" << QList<qint64>{6, 1, 0};
        QTest::newRow("one number") << "7" << QList<qint64>{7, 0, 0};
        QTest::newRow("garbage") << "linux-6.1" << QList<qint64>{0, 0, 0};
        QTest::newRow("sign") << "-6.1" << QList<qint64>{0, 0, 0};
        QTest::newRow("beyond 64 bits") << "99999999999999999999.2.3" << QList<qint64>{0, 2, 3};
        QTest::newRow("empty") << "" << QList<qint64>{0, 0, 0};
    }

    void kernelReleases()
    {
        QFETCH(QString, release);
        QFETCH(QList<qint64>, expected);
        const SystemVersion version = zel::parseSystemVersion(release);
        QCOMPARE((QList<qint64>{version.majorVersion, version.minorVersion, version.patchVersion}), expected);
    }

    void models_data()
    {
        QTest::addColumn<QByteArrayList>("files"); // a null one stands for a missing file
        QTest::addColumn<QString>("expected");

        const QByteArray missing;
        QTest::newRow("firmware") << QByteArrayList{"Model 20\n", "Board"} << "Model 20";
        QTest::newRow("device tree") << QByteArrayList{missing, QByteArray("Board B\0", 8)} << "Board B";
        QTest::newRow("behind a NUL") << QByteArrayList{QByteArray("Board\0junk", 10)} << "Board";
        QTest::newRow("blank") << QByteArrayList{" \n", "Board"} << "Board";
        QTest::newRow("not ASCII") << QByteArrayList{"M\xc3\xb6"
                                                     "del",
                                                     "Board"}
                                   << "Board";
        QTest::newRow("long") << QByteArrayList{QByteArray(200, 'x')} << QString(127, u'x');
        QTest::newRow("none") << QByteArrayList{missing, "\n"} << QString();
    }

    void models()
    {
        QFETCH(QByteArrayList, files);
        QFETCH(QString, expected);
        const TemporaryTree tree;
        QStringList paths;
        for (qsizetype i = 0; i < files.size(); ++i) {
            paths.append(tree.path(QString::number(i)));
            if (!files[i].isNull())
                tree.write(QString::number(i), files[i]);
        }
        const QString model = zel::modelFromFiles(paths);
        QCOMPARE(model, expected);
        QCOMPARE(model.isNull(), expected.isNull());
    }
};

QTEST_GUILESS_MAIN(tst_SystemFacts)
#include "tst_SystemFacts.moc"
