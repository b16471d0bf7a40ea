#include "seal/ConfiguredSigners.h"
#include "support/Case.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QSet>
#include <QtTest>

using namespace zel;

class tst_SealSigners : public QObject
{
    Q_OBJECT

private slots:
    void everyTypeThatCanHoldFingerprints()
    {
        struct Row {
            const char *name;
            QVariant value;
            QStringList pins;
            QString named = {}; // in the log, as what accepts nobody
        };
        const QString one = QString("0a").repeated(32), other = QString("fb").repeated(32);
        const QString colons = "sha256 Fingerprint=" + QString("FB:").repeated(31) + "FB";
        const QByteArray raw(32, '\xfb');
        const std::vector<Row> rows{
            {"text", one, {one}},
            {"line of openssl", colons + '\n', {other}},
            {"in capitals, with blanks", ' ' + QString("FB ").repeated(32), {other}},
            {"texts in lines and between commas", one + ",\n" + colons, {one, other}},
            {"bytes", one.toLatin1(), {one}},
            {"digest", raw, {other}},
            {"string list", QStringList{one, other}, {one, other}},
            {"list of bytes", QVariant::fromValue(QByteArrayList{one.toLatin1(), raw}), {one, other}},
            {"variant list", QVariantList{one, raw}, {one, other}},
            {"array of JSON", QJsonArray{one, other}, {one, other}},
            {"value of JSON", QVariant::fromValue(QJsonValue(one)), {one}},
            {"array as a value of JSON", QVariant::fromValue(QJsonValue(QJsonArray{one})), {one}},
            {"set", QVariant::fromValue(QSet<QString>{one}), {one}},
            {"vector", QVariant::fromValue(std::vector<QString>{one, other}), {one, other}},
            {"no value", {}, {}},
            {"empty text", "", {}, "an empty text"},
            {"empty list", QStringList(), {}, "names nobody"},
            {"null of JSON", QVariant::fromValue(QJsonValue()), {}},
            {"map", QVariantMap{{"pin", one}}, {}, "QVariantMap"},
            {"number", 5, {}, "int"},
            {"SHA-1", QString("0a").repeated(20), {}, "0a0a"},
            {"other digest's line", "sha1 Fingerprint=" + one, {}, "sha1"},
            {"one digit too many", one + 'a', {}, "0a0a"},
            {"one bad of two", QStringList{one, "typo"}, {one}, "typo"},
        };
        for (const auto &[name, value, pins, named] : rows) {
            const Case context(name);
            const LogCapture capture;
            const SignerPins read = pinnedSigners(HostConfig::fromMap({{"signers", value}}));
            QVERIFY(read);
            QCOMPARE(read->fingerprints, pins);
            const QString logged = capture.lines("zel.updater").join(u'\n');
            QVERIFY2(logged.contains(named), qPrintable(logged));
            QCOMPARE(logged.isEmpty(), named.isEmpty() && !pins.isEmpty());
            QVERIFY(!pinnedSigners(HostConfig::fromMap({{"signer", value}})));
        }
    }

    // How many must sign; what is no count accepts nobody, and pins by being there.
    void thresholds()
    {
        for (const auto &[value, count] : {std::pair(QVariant(2), 2),
                                           {QVariant("3"), 3},
                                           {QVariant(1.0), 1},
                                           {QVariant(0), 0},
                                           {QVariant(-1), 0},
                                           {QVariant(1.5), 0},
                                           {QVariant(true), 0},
                                           {QVariant("all"), 0},
                                           {QVariant(), 0},
                                           {QVariant(1e18), 0}}) {
            const SignerPins read = pinnedSigners(HostConfig::fromMap({{"threshold", value}}));
            QVERIFY(read && read->fingerprints.isEmpty());
            QCOMPARE(read->threshold, count);
        }
    }
};

QTEST_GUILESS_MAIN(tst_SealSigners)
#include "tst_SealSigners.moc"
