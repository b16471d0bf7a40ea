#include "IntegerValue.h"

#include <QJsonDocument>
#include <QJsonValue>
#include <QtTest>

class tst_IntegerValue : public QObject
{
    Q_OBJECT
private slots:
    void jsonValues_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<qint64>("expected");

        QTest::newRow("number") << QByteArray("7001") << qint64(7001);
        QTest::newRow("fraction is cut") << QByteArray("7.9") << qint64(7);
        QTest::newRow("boolean") << QByteArray("true") << qint64(1);
        QTest::newRow("null") << QByteArray("null") << qint64(0);
        QTest::newRow("above 2^53") << QByteArray("9007199254740993") << qint64(9007199254740993);
        QTest::newRow("beyond 64 bits") << QByteArray("1e30") << std::numeric_limits<qint64>::max();
        QTest::newRow("text with a tail") << QByteArray("\"7001abc\"") << qint64(7001);
        QTest::newRow("text with blanks") << QByteArray("\" 12\"") << qint64(12);
        QTest::newRow("text with a sign") << QByteArray("\"+42\"") << qint64(42);
        QTest::newRow("negative text") << QByteArray("\"-42 junk\"") << qint64(-42);
        QTest::newRow("sign alone") << QByteArray("\"-\"") << qint64(0);
        QTest::newRow("blank after sign") << QByteArray("\"- 1\"") << qint64(0);
        QTest::newRow("least") << QByteArray("\"-9223372036854775808\"")
                               << std::numeric_limits<qint64>::min();
        QTest::newRow("text overflow")
            << QByteArray("\"99999999999999999999\"") << std::numeric_limits<qint64>::max();
        QTest::newRow("array") << QByteArray("[1]") << qint64(0);
    }

    void jsonValues()
    {
        QFETCH(QByteArray, json);
        QFETCH(qint64, expected);
        const QJsonDocument document = QJsonDocument::fromJson('[' + json + ']');
        QVERIFY(document.isArray());
        QCOMPARE(zel::integerValue(document[0].toVariant()), expected);
    }

    void nothing() { QCOMPARE(zel::integerValue(QVariant()), 0); }
};

QTEST_GUILESS_MAIN(tst_IntegerValue)
#include "tst_IntegerValue.moc"
