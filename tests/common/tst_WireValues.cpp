#include "common/WireValues.h"

#include <QJsonDocument>
#include <QJsonValue>
#include <QtTest>

class tst_WireValues : public QObject
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

    void types_data()
    {
        QTest::addColumn<QVariant>("value");
        const auto row = [](const char *name, auto value) {
            QTest::newRow(name) << QVariant::fromValue(value);
        };
        row("int", 7);
        row("unsigned", 7U);
        row("long", 7L);
        row("unsigned long", 7UL);
        row("long long", 7LL);
        row("unsigned long long", 7ULL);
        row("short", short(7));
        row("unsigned short", ushort(7));
        row("char", char(7));
        row("signed char", static_cast<signed char>(7));
        row("unsigned char", uchar(7));
        row("float", 7.0F);
        row("double", 7.0);
    }

    void types()
    {
        QFETCH(QVariant, value);
        QCOMPARE(zel::integerValue(value), 7);
        QVERIFY(zel::jsonValue(value).isDouble());
        QCOMPARE(zel::jsonValue(value).toInteger(), 7);
    }

    void nothing() { QCOMPARE(zel::integerValue(QVariant()), 0); }

    void webAddresses()
    {
        for (const char *good : {"http://a", "https://a.example:1/b?c", "HTTPS://a"})
            QVERIFY2(zel::isWebAddress(QUrl(good)), good);
        for (const char *bad : {"", "a.example", "//a", "http:", "http:///a", "http://a:b/", "file:///a",
                                "file://a/b", "ftp://a", "httpsx://a"})
            QVERIFY2(!zel::isWebAddress(QUrl(bad)), bad);
    }
};

QTEST_GUILESS_MAIN(tst_WireValues)
#include "tst_WireValues.moc"
