#include "seal/SealSigners.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QSet>
#include <QtTest>

using namespace zel;

class tst_SealSigners : public QObject
{
    Q_OBJECT

private slots:
    void everyTypeThatCanHoldFingerprints_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QStringList>("pins");
        QTest::addColumn<QString>("named"); // in the log, as what accepts nobody

        const QString one = QString("0a").repeated(32), other = QString("fb").repeated(32);
        const QString colons = "sha256 Fingerprint=" + QString("FB:").repeated(31) + "FB";
        const QByteArray raw(32, '\xfb');
        const auto reads = [](const char *name, const QVariant &value, const QStringList &pins) {
            QTest::newRow(name) << value << pins << QString();
        };
        const auto refuses = [](const char *name, const QVariant &value, const char *why) {
            QTest::newRow(name) << value << QStringList() << QString(why);
        };
        reads("text", one, {one});
        reads("line of openssl", colons + '\n', {other});
        reads("in capitals, with blanks", ' ' + QString("FB ").repeated(32), {other});
        reads("texts in lines and between commas", one + ",\n" + colons, {one, other});
        reads("bytes", one.toLatin1(), {one});
        reads("digest", raw, {other});
        reads("string list", QStringList{one, other}, {one, other});
        reads("list of bytes", QVariant::fromValue(QByteArrayList{one.toLatin1(), raw}), {one, other});
        reads("variant list", QVariantList{one, raw}, {one, other});
        reads("array of JSON", QJsonArray{one, other}, {one, other});
        reads("value of JSON", QVariant::fromValue(QJsonValue(one)), {one});
        reads("array as a value of JSON", QVariant::fromValue(QJsonValue(QJsonArray{one})), {one});
        reads("set", QVariant::fromValue(QSet<QString>{one}), {one});
        reads("vector", QVariant::fromValue(std::vector<QString>{one, other}), {one, other});
        refuses("no value", QVariant(), "");
        refuses("empty text", "", "an empty text");
        refuses("empty list", QStringList(), "names nobody");
        refuses("null of JSON", QVariant::fromValue(QJsonValue()), "");
        refuses("map", QVariantMap{{"pin", one}}, "QVariantMap");
        refuses("number", 5, "int");
        refuses("SHA-1", QString("0a").repeated(20), "0a0a");
        refuses("other digest's line", "sha1 Fingerprint=" + one, "sha1");
        refuses("one digit too many", one + 'a', "0a0a");
        QTest::newRow("one bad of two") << QVariant(QStringList{one, "typo"}) << QStringList(one) << "typo";
    }

    void everyTypeThatCanHoldFingerprints()
    {
        QFETCH(QVariant, value);
        QFETCH(QStringList, pins);
        QFETCH(QString, named);
        const LogCapture capture;
        const SignerPins read = pinnedSigners(HostConfig::fromMap({{"signers", value}}));
        QVERIFY(read);
        QCOMPARE(*read, pins);
        const QString logged = capture.lines("zel.updater").join(u'\n');
        QVERIFY2(logged.contains(named), qPrintable(logged));
        QCOMPARE(logged.isEmpty(), named.isEmpty() && !pins.isEmpty());
        QVERIFY(!pinnedSigners(HostConfig::fromMap({{"signer", value}})));
    }
};

QTEST_GUILESS_MAIN(tst_SealSigners)
#include "tst_SealSigners.moc"
