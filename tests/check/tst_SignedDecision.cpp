// Records of a publisher, and of others, as a host that pins signers takes them.
#include "check/UpdateDecision.h"
#include "support/Case.h"
#include "support/LogCapture.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"

#include <QProcess>

using namespace zel;

namespace {

const MachineFacts Machine{"x86", {6, 1, 38}, "Machine"};
constexpr qint64 Day = 24 * 60 * 60;

// Keys of a record that replace those of a good one.
QJsonObject record(qint64 build, const QJsonObject &changes = {})
{
    QJsonObject result{{"build", build}, {"file", "A.zip"},
                       {"hash", "h"},    {"sha256", QString(64, u'a')},
                       {"size", 1},      {"identifier", "org.example"}};
    for (auto key = changes.begin(); key != changes.end(); ++key)
        result[key.key()] = key.value();
    return result;
}

QJsonObject with(QJsonObject record, const QString &key, const QJsonValue &value)
{
    record[key] = value;
    return record;
}

QByteArray openssl(const QStringList &words, const QByteArray &input = {})
{
    QProcess process;
    process.start("openssl", words);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished() || process.exitCode() != 0)
        qFatal("%s", process.readAllStandardError().constData());
    return process.readAllStandardOutput();
}

} // namespace

class tst_SignedDecision : public QObject
{
    Q_OBJECT

    const TemporaryTree m_tree;
    const TestCertificate m_maker = makeTestCertificate(m_tree.path(), "maker");
    const TestCertificate m_second = makeTestCertificate(m_tree.path(), "second");
    const TestCertificate m_thief = makeTestCertificate(m_tree.path(), "thief");
    const TestCertificate m_web = makeTestCertificate(
        m_tree.path(), "web",
        {"ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-addext", "extendedKeyUsage=serverAuth"});
    const TestCertificate m_renewed = makeSecondCertificate(m_maker, "renewed");
    const qint64 m_now = QDateTime::currentSecsSinceEpoch();

    RecordPolicy policy(qint64 threshold = 1) const
    {
        const QStringList pins{m_maker.fingerprint, m_second.fingerprint, m_renewed.fingerprint,
                               m_web.fingerprint};
        return {AcceptedSigners(pins, threshold), "org.example", m_now - 10, m_now};
    }

    static QJsonObject by(const QList<TestCertificate> &signers, const QJsonObject &record)
    {
        return signedRecord(record, signersOf(signers));
    }
    QJsonObject good(qint64 build = 101, const QJsonObject &changes = {}) const
    {
        return by({m_maker}, record(build, changes));
    }

    Decision decide(const QJsonArray &reply, const RecordPolicy &policy, qint64 installed = 100) const
    {
        return decideUpdate(QJsonDocument(reply).toJson(), {.build = installed}, installed, Machine, policy,
                            QUrl("http://host/dir/check?x=1"));
    }

private slots:
    void refusals_data()
    {
        QTest::addColumn<QJsonArray>("reply");
        QTest::addColumn<QString>("reason"); // why it is refused, in part
        QTest::addColumn<int>("threshold");

        const auto row = [](const char *name, const QJsonArray &reply, const char *reason,
                            int threshold = 1) { QTest::newRow(name) << reply << reason << threshold; };
        const auto one = [&](const char *name, const QJsonObject &changes, const char *reason) {
            row(name, {good(101, changes)}, reason);
        };
        const auto holding = [&](const char *name, const QByteArray &content) {
            row(name, {with(record(101), "signed", signatureOver(content, signersOf({m_maker})))},
                "without a signature");
        };
        QByteArray forged = QByteArray::fromBase64(good()["signed"].toString().toLatin1());
        forged.replace("A.zip", "B.zip");
        // What the publisher's tool refuses to make.
        const auto byOpenssl = [&](const QStringList &words) {
            const QByteArray made =
                openssl(QStringList{"cms", "-sign", "-binary", "-nodetach", "-outform", "DER"} + words,
                        QJsonDocument(good()).toJson());
            return QJsonArray{with(record(101), "signed", QString(made.toBase64()))};
        };
        const auto words = [](const TestCertificate &signer) {
            return QStringList{"-signer", signer.certificateFile, "-inkey", signer.keyFile};
        };
        const QJsonObject bad = by({m_thief}, record(102));
        QJsonArray hundred;
        for (int i = 0; i < 100; ++i)
            hundred.append(bad);
        hundred.append(good());

        row("unsigned", {record(101)}, "without a signature");
        row("empty", {}, "it is empty");
        row("no object", {1}, "without a signature");
        row("forged", {with(record(101), "signed", QString(forged.toBase64()))}, "does not verify");
        row("garbage", {with(record(101), "signed", "%%%")}, "without a signature");
        row("garbage in base64", {with(record(101), "signed", "MIIGJwYJKoZIhvcNAQcC")},
            "without a signature");
        row("no text", {with(record(101), "signed", QJsonArray{1})}, "without a signature");
        holding("holding no object", "[1]");
        holding("holding no JSON", "<html>");
        row("another signer", {bad}, "not one of those that are pinned");
        row("a certificate for web servers", byOpenssl(words(m_web)), "extended key usage");
        row("one of two", {good()}, "1 of the pinned signers signed, needed are 2", 2);
        row("one key twice",
            byOpenssl(QStringList{"-nocerts", "-certfile", m_maker.certificateFile} + words(m_maker)
                      + words(m_maker)),
            "1 of the pinned signers signed", 2);
        row("two certificates of one key", {by({m_maker, m_renewed}, record(101))},
            "1 of the pinned signers signed", 2);
        row("a hundred bad ones first", hundred, "not one of those that are pinned");
        one("another application", {{"identifier", "org.other"}}, "for another application");
        one("no application", {{"identifier", QJsonValue::Null}}, "for another application");
        one("expired", {{"issued", m_now - 5}, {"expires", m_now - 1}}, "it expired");
        one("from the future", {{"issued", m_now + 2 * Day}, {"expires", m_now + 3 * Day}}, "still to come");
        one("a replay", {{"issued", m_now - 20}}, "a replay");
        one("no dates", {{"issued", QJsonValue::Null}}, "from when until when");
        one("good for ever", {{"expires", m_now + 400 * Day}}, "longer than a year");
        one("no SHA-256", {{"sha256", QJsonValue::Null}}, "known by");
        one("no list of builds", {{"builds", QJsonArray{100}}}, "which builds there are");
        one("a newer one withheld", {{"builds", QJsonArray{101, 102}}}, "withholds build 102");
        row("nothing newer, and a newer one withheld", {good(100, {{"builds", QJsonArray{100, 102}}})},
            "withholds build 102");
        const QJsonObject hidden = with(good(102, {{"builds", QJsonArray{100, 102}}}), "build", 50);
        row("a newer one under a lower number", {hidden}, "beside its signature stands another");
        row("a newer one under a lower number, beside the installed one",
            {hidden, good(100, {{"builds", QJsonArray{100, 102}}})}, "withholds build 102");
        row("an older one under the number of a withheld one",
            {good(101, {{"builds", QJsonArray{101, 102}}}),
             with(good(100, {{"builds", QJsonArray{101, 102, 100}}}), "build", 102)},
            "withholds build 102");
        row("a newer one under the number of an older one",
            {good(102, {{"builds", QJsonArray{102, 103}}}),
             with(good(103, {{"builds", QJsonArray{102, 103}}}), "build", 101)},
            "withholds build 103");
        row("another in place of a withheld one", {bad, good(101, {{"builds", QJsonArray{101, 102}}})},
            "withholds build 102");
    }

    void refusals()
    {
        QFETCH(QJsonArray, reply);
        QFETCH(QString, reason);
        QFETCH(int, threshold);
        const LogCapture log;
        const Decision decision = decide(reply, policy(threshold));
        QCOMPARE(int(decision.status), int(ZELStatusUnknownError));
        QVERIFY(decision.result.isEmpty() && !decision.result.issued);
        const QString said = log.lines("zel.system").join(u'\n');
        QVERIFY2(said.contains(reason), qPrintable(said));
    }

    void acceptances()
    {
        const qint64 ended = m_now + 2 * Day; // the certificates are good for one
        const QJsonObject past{{"issued", ended}, {"expires", ended + Day}};
        RecordPolicy later = policy();
        later.now = ended;
        QCOMPARE(int(decide({good(101, past)}, later).status), int(ZELStatusUnknownError));
        later.now = m_now + Day / 2;
        QCOMPARE(int(decide({good(101, {{"expires", ended}})}, later).status), int(ZELStatusUpdateAvailable));

        QJsonArray few;
        for (int i = 0; i < 15; ++i)
            few.append(by({m_thief}, record(102)));
        few.append(good());
        const QJsonArray two{101, 102};
        const QJsonObject beta = good(102, {{"beta", true}, {"builds", two}});
        const QJsonObject lied = with(with(good(), "file", "http://evil/"), "build", 999);
        for (const auto &[name, reply, threshold, installed] :
             {std::tuple("good", QJsonArray{good()}, 1, 100),
              {"other things beside the signature", {lied}, 1, 100},
              {"nothing beside the signature", {QJsonObject{{"signed", good()["signed"]}}}, 1, 100},
              {"two signers", {by({m_maker, m_second}, record(101))}, 2, 100},
              {"a stranger signs, too", {by({m_maker, m_thief}, record(101))}, 1, 100},
              {"an older one that claims to be the newest",
               {with(good(101, {{"file", "old"}, {"builds", two}}), "build", 999),
                good(102, {{"builds", two}})},
               1,
               100},
              {"some bad ones first", few, 1, 100},
              {"some bad ones, and nothing newer", few, 1, 101},
              {"a beta build that is not wanted", {beta, good(101, {{"builds", two}})}, 1, 100},
              {"nothing newer", {good()}, 1, 101}}) {
            const Case context(name);
            const Decision decision = decide(reply, policy(threshold), installed);
            const bool newer = installed == 100;
            QCOMPARE(int(decision.status), int(newer ? ZELStatusUpdateAvailable : ZELStatusNoUpdates));
            QVERIFY(decision.result.issued >= m_now);
            QCOMPARE(decision.result.toMap()["update"].toMap()["file"].toString(),
                     newer ? "http://host/dir/A.zip" : "");
        }
        const LogCapture log;
        decide(few, policy(), 101); // which asks twice whether they are good
        QCOMPARE(log.lines("zel.updater").filter("refused build 102").size(), 15);
    }

    // Some bytes do not count, as the certificate's signature of itself; but then the record is what it was.
    void damagedSignatures()
    {
        const QByteArray whole = QByteArray::fromBase64(good()["signed"].toString().toLatin1());
        const auto offered = [&](const QByteArray &message) {
            const Decision decision =
                decide({with(record(101), "signed", QString(message.toBase64()))}, policy());
            QVariantMap map = decision.result.toMap()["update"].toMap();
            map.remove("signed");
            return map;
        };
        const QVariantMap genuine = offered(whole);
        QCOMPARE(genuine["build"], 101);
        int refused = 0;
        for (qsizetype i = 0; i < whole.size(); ++i) {
            QByteArray damaged = whole;
            damaged[i] = char(damaged[i] ^ 0x55);
            const QVariantMap found = offered(damaged);
            refused += found.isEmpty();
            QVERIFY(found.isEmpty() || found == genuine);
            QVERIFY(offered(whole.left(i)).isEmpty());
        }
        QVERIFY(refused > whole.size() / 2);
        QVERIFY(offered(whole + '\0').isEmpty());
    }

    void latestSeen()
    {
        const qint64 never = std::numeric_limits<qint64>::max();
        for (const auto &[issued, seen] :
             std::initializer_list<std::pair<QVariant, qint64>>{{{}, 0},
                                                                {1763806800, 1763806800},
                                                                {"1763806800", 1763806800},
                                                                {"1e9", 1'000'000'000},
                                                                {"yesterday", never},
                                                                {"", never},
                                                                {-1, never},
                                                                {1e300, never},
                                                                {true, never},
                                                                {QVariantList{1}, never}}) {
            const Case name(issued.toString());
            QCOMPARE(recordPolicy(HostConfig::fromMap({{"signers", "x"}, {"issued", issued}}))->seen, seen);
        }
    }

    // A result that the host has kept, and gives back when much has changed.
    void keptResults()
    {
        // Of the installed build one that nobody knows yet, an older kind, and the one that is chosen.
        const auto of = [](QJsonObject more, int size) {
            more.insert("build", 100);
            more.insert("file", "p");
            more.insert("hash", "h");
            more.insert("size", size);
            more.insert("sha256", QString(64, u'b'));
            return more;
        };
        const QJsonArray patches{of({{"format", 2}, {"requires", QJsonArray{"wings"}}}, 5), of({}, 6),
                                 of({{"format", 2}, {"requires", QJsonArray{"modes"}}}, 7),
                                 QJsonObject{{"build", 99}, {"file", "q"}, {"hash", "h"}}};
        const QVariantMap kept = decide({good(101, {{"patches", patches}})}, policy()).result.toMap();
        CheckResult trusted;
        const auto refusal = [&](const QVariantMap &result, const RecordPolicy &now) {
            const ZELError error = trustedOffer(CheckResult::fromMap(result), now, trusted);
            return trusted.isEmpty() == bool(error) ? error.message : "neither";
        };
        const auto changed = [&](const char *part, const QVariantMap &keys) {
            QVariantMap entry = kept[part].toMap();
            entry.insert(keys);
            QVariantMap result = kept;
            result[part] = entry;
            return result;
        };
        QCOMPARE(refusal(kept, policy()), "");
        QCOMPARE(trusted.patch->size, 7);
        QCOMPARE(trusted.patch->file, "http://host/dir/p");
        RecordPolicy later = policy();
        later.now += Day;
        QVERIFY(refusal(kept, later).contains("it expired"));
        later = policy();
        later.seen = m_now + Day;
        QVERIFY(refusal(kept, later).contains("a replay"));
        later.signers = QStringList(m_second.fingerprint);
        later.seen = 0;
        QVERIFY(refusal(kept, later).contains("not one of those"));
        later = policy();
        later.installedBuild = 101; // by another way, meanwhile
        QVERIFY(refusal(kept, later).contains("build 101 is installed"));
        // What stands beside the signature is not looked at, but for addresses.
        QCOMPARE(refusal(changed("update", {{"build", 999}, {"sha256", "x"}}), policy()), "");
        QCOMPARE(trusted.update->build, 101);
        QCOMPARE(trusted.update->sha256, QString(64, u'a'));
        QCOMPARE(refusal(changed("patch", {{"size", 1 << 30}}), policy()), "");
        QCOMPARE(trusted.patch->size, 7);
        for (const int build : {98, 99}) { // one that is not there, and one without SHA-256
            QCOMPARE(refusal(changed("patch", {{"build", build}}), policy()), "");
            QVERIFY(!trusted.patch);
        }
        QVERIFY(
            refusal(changed("update", {{"signed", QVariant()}}), policy()).contains("bears no signature"));
    }
};

QTEST_GUILESS_MAIN(tst_SignedDecision)
#include "tst_SignedDecision.moc"
