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
        QTest::addColumn<qint64>("expected");

        const auto row = [](const char *json, qint64 expected) { QTest::newRow(json) << expected; };
        row("7.9", 7);
        row("true", 1);
        row("null", 0);
        row("[1]", 0);
        row("9007199254740993", 9007199254740993); // above 2^53
        row("1e30", std::numeric_limits<qint64>::max());
        row("\" 12\"", 12);
        row("\"+42\"", 42);
        row("\"-42 junk\"", -42);
        row("\"- 1\"", 0);
        row("\"-9223372036854775808\"", std::numeric_limits<qint64>::min());
        row("\"99999999999999999999\"", std::numeric_limits<qint64>::max());
    }

    void jsonValues()
    {
        QFETCH(qint64, expected);
        const auto document = QJsonDocument::fromJson('[' + QByteArray(QTest::currentDataTag()) + ']');
        QVERIFY(document.isArray());
        QCOMPARE(zel::integerValue(document[0].toVariant()), expected);
    }

    void types()
    {
        const auto sevens = [](auto... numbers) { return QVariantList{QVariant::fromValue(numbers)...}; };
        for (const QVariant &value : sevens(7, 7U, 7L, 7UL, 7LL, 7ULL, short(7), ushort(7), char(7),
                                            static_cast<signed char>(7), uchar(7), 7.0F, 7.0)) {
            QVERIFY2(zel::integerValue(value) == 7, value.typeName());
            QVERIFY2(zel::jsonValue(value).isDouble(), value.typeName());
            QVERIFY2(zel::jsonValue(value).toInteger() == 7, value.typeName());
        }
    }

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
