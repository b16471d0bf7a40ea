// The rows of SECURITY.md's table: whoever owns the network and every server, against `zelupdater update`
// with pinned signers, and against an application without a window for the release notes.
#include "check/UpdateCheck.h"
#include "support/DeltaSupport.h"
#include "support/LogCapture.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"
#include "support/TestServer.h"

#include <QProcess>

using namespace zel;
using Answer = TestServer::Answer;

namespace {

// What the attacker does, and what the user must see of it.
struct Threat {
    QByteArray feed; // of the check's reply
    QMap<QString, Answer> answers = {}; // instead of the publisher's files
    QStringList options = {}; // instead of those that pin the publisher's two signers
    QString said; // the end of the new bundle's path, or why there is none
    QStringList asked = {"/check"};
};

QByteArray feedOf(const QJsonArray &records)
{
    return QJsonDocument(records).toJson();
}

} // namespace

Q_DECLARE_METATYPE(Threat)

class ThreatsTest : public QObject
{
    Q_OBJECT

    static inline const QString Archive = "/Example-102.zip", Patch = "/Example-100-to-102.2.zelpatch";

    const TemporaryTree m_tree;
    const TestCertificate m_maker = makeTestCertificate(m_tree.path(), "maker");
    const TestCertificate m_second = makeTestCertificate(m_tree.path(), "second");
    const TestCertificate m_thief = makeTestCertificate(m_tree.path(), "thief");

    QByteArray tool(const QStringList &words, int status = 0) const
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(ZELUPDATER, words);
        const bool ended = process.waitForFinished(120'000);
        const QByteArray said = process.readAll();
        if (!ended || process.exitCode() != status)
            qFatal("%s: %s", qPrintable(words.join(u' ')), said.constData());
        return said;
    }

    static QStringList keys(const QList<TestCertificate> &signers)
    {
        QStringList words;
        for (const TestCertificate &signer : signers)
            words << "--key" << signer.keyFile << "--cert" << signer.certificateFile;
        return words;
    }

    // Released in a folder; 100 to 102 of an application by two signers, and others.
    QJsonArray release(const QString &folder, const QList<int> &builds, const QByteArray &identifier,
                       const QList<TestCertificate> &signers, const QList<TestCertificate> &sealers) const
    {
        for (const int build : builds) {
            const QByteArray number = QByteArray::number(build);
            const QString bundle = folder + '/' + number + "/Example.app";
            m_tree.write(bundle + "/Contents/Info.plist",
                         "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + number
                             + "</string><key>CFBundleIdentifier</key><string>" + identifier
                             + "</string></dict></plist>");
            m_tree.write(bundle + "/Contents/MacOS/example", randomBytes(100'000, 256, 1) + number, 0755);
            tool(QStringList{"sign", m_tree.path(bundle)} + keys(sealers));
            tool(QStringList{"release", m_tree.path(bundle), m_tree.path(folder + "/r"), "--new-signer",
                             "--notes", m_tree.write("notes.html", "<p>notes " + number)}
                 + keys(signers));
        }
        return QJsonDocument::fromJson(m_tree.read(folder + "/r/releases.json")).array();
    }

    // A record in other words, signed by whoever.
    static QByteArray newestAs(const QJsonArray &feed, const QJsonObject &changes,
                               const QList<TestCertificate> &signers)
    {
        QJsonObject record = feed.last().toObject();
        record.remove("signed");
        for (auto key = changes.begin(); key != changes.end(); ++key)
            record[key.key()] = key.value();
        return feedOf({signedRecord(record, signersOf(signers))});
    }

    static QByteArray without(QJsonArray feed, const QString &key)
    {
        for (QJsonValueRef value : feed) {
            QJsonObject record = value.toObject();
            record.remove(key);
            value = record;
        }
        return feedOf(feed);
    }

    void serve(TestServer &server, const QString &folder, const QByteArray &feed,
               const QMap<QString, Answer> &answers) const
    {
        for (const QString &name : QDir(m_tree.path(folder)).entryList(QDir::Files))
            server.answer('/' + name, {{.body = m_tree.read(folder + '/' + name)}});
        server.answer("/check", {{.body = feed}});
        for (auto answer = answers.begin(); answer != answers.end(); ++answer)
            server.answer(answer.key(), {*answer});
    }

private slots:
    void threats_data()
    {
        QTest::addColumn<Threat>("threat");

        const QList<TestCertificate> both{m_maker, m_second};
        const QJsonArray feed = release("ours", {100, 101, 102}, "org.example", both, both);
        const QJsonArray others = release("others", {102}, "org.other", both, both);
        const QJsonArray forged = release("forged", {102}, "org.example", {m_thief}, {m_thief});
        const QJsonArray halfSealed = release("half", {102}, "org.example", both, {m_maker});
        const qint64 now = QDateTime::currentSecsSinceEpoch();
        const QByteArray genuine = feedOf(feed);
        const QByteArray other = m_tree.read("ours/r/Example-101.zip");
        const QByteArray otherPatch = m_tree.read("ours/r/Example-100-to-101.2.zelpatch");
        const QStringList patch{"/check", Patch}, fallsBack{"/check", Patch, Archive};
        const Answer endless{.body = "x", .endless = TestServer::Endless::Body};
        const auto row = [](const char *name, const Threat &threat) { QTest::newRow(name) << threat; };
        const auto refused = [&](const char *name, const QByteArray &reply, const char *reason,
                                 const QStringList &options = {}) {
            row(name, {reply, {}, options, QString("no record of the reply is accepted: ") + reason});
        };

        row("nobody", {.feed = genuine, .said = "/Patched-100.app", .asked = patch});
        row("nobody, pinned to the installed seal",
            {genuine, {}, {"--signer", "installed"}, "/Patched-100.app", patch});
        row("mirror: another patch", {genuine, {{Patch, {.body = "other"}}}, {}, "/Example.app", fallsBack});
        row("mirror: other files",
            {genuine,
             {{Patch, {.body = "other"}}, {Archive, {.body = "other"}}},
             {},
             "Download Failed",
             fallsBack});
        row("mix and match: files of another build",
            {genuine,
             {{Patch, {.body = otherPatch}}, {Archive, {.body = other}}},
             {},
             "Download Failed",
             fallsBack});
        row("mix and match: a patch of another build's record",
            {newestAs(feed, {{"patches", feed[1]["patches"]}}, both),
             {},
             {},
             "/Example.app",
             {"/check", "/Example-100-to-101.2.zelpatch", "/wexmoor7/updates/patch/", Archive}});
        row("endless data",
            {genuine, {{Patch, endless}, {Archive, endless}}, {}, "Download Failed", fallsBack});
        row("a redirected check",
            {genuine,
             {{"/check", Answer::redirect("/elsewhere/check", 307)}, {"/elsewhere/check", {.body = genuine}}},
             {},
             "Download Failed",
             {"/check", "/elsewhere/check", "/elsewhere" + Patch, "/elsewhere" + Archive}});
        refused("web server: a feed of its own", feedOf(forged), "build 102: the signer is not one of those");
        refused("web server: an unsigned feed", without(feed, "signed"), "a record without a signature");
        refused("stolen old key", newestAs(feed, {}, {m_maker}), "build 102: the signer is not one of those",
                {"--signer", m_second.fingerprint});
        refused("one of two keys stolen", newestAs(feed, {}, {m_maker}),
                "build 102: 1 of the pinned signers signed");
        refused("another application of the publisher", feedOf(others),
                "build 102: it is for another application");
        refused("replay", genuine, "build 102: it was issued at .* a replay",
                {"--signer", "installed", "--issued", QString::number(now + 3600)});
        refused("freeze: the last feed for ever",
                newestAs(feed, {{"issued", now - 60}, {"expires", now - 1}}, both),
                "build 102: it expired at");
        refused("freeze: nothing", "[]", "it is empty");
        row("freeze: all but the newest",
            {.feed = feedOf({feed[0], feed[1]}), .said = "the reply withholds build 102"});
        row("downgrade: an old record",
            {.feed = newestAs(feed, {{"build", 99}, {"builds", QJsonArray{99}}}, both),
             .said = "No Updates"});
        row("downgrade: an old bundle under a new number",
            {newestAs(feed, {{"build", 103}, {"builds", QJsonArray{103}}, {"patches", QJsonArray()}}, both),
             {},
             {},
             "Extraction Failed",
             {"/check", Archive}});
        row("a seal by one of two",
            {feedOf(halfSealed),
             {{Archive, {.body = m_tree.read("half/r" + Archive)}}},
             {},
             "Extraction Failed",
             {"/check", Archive}});
    }

    void threats()
    {
        QFETCH(Threat, threat);
        TestServer server;
        serve(server, "ours/r", threat.feed, threat.answers);
        QStringList options = threat.options;
        if (options.isEmpty())
            options = {"--signer", m_maker.fingerprint, "--signer", m_second.fingerprint, "--threshold", "2"};
        const bool done = threat.said.endsWith(".app") || threat.said == "No Updates";
        const QByteArray said =
            tool(QStringList{"update", "--url", server.url("/check").toString(), "--path",
                             m_tree.path("ours/100/Example.app"), "--staging", m_tree.path("staging")}
                     + options,
                 done ? 0 : 1);
        QVERIFY2(QRegularExpression(threat.said).match(QString::fromUtf8(said)).hasMatch(), said.constData());
        QStringList asked;
        for (const TestServer::Request &request : server.requests())
            asked += QString::fromUtf8(request.path);
        asked.sort();
        QStringList expected = threat.asked;
        expected.sort();
        QCOMPARE(asked, expected);
        QDirIterator left(m_tree.path("staging"), QDir::Files, QDirIterator::Subdirectories);
        const bool isLeft = left.hasNext();
        QDir(m_tree.path("staging")).removeRecursively();
        QCOMPARE(isLeft, threat.said.endsWith(".app"));
    }

    void wrongNotes()
    {
        for (const bool pinned : {true, false}) {
            TestServer server;
            const LogCapture log;
            serve(server, "ours/r", m_tree.read("ours/r/releases.json"), {});
            HostConfig config{.url = server.url("/check").toString(),
                              .path = m_tree.path("ours/100/Example.app")};
            config.build = 100;
            if (pinned)
                config.signers = "installed";
            QVariantMap result;
            checkForUpdates(config,
                            [&](qint64, const QVariantMap &found, const QVariant &) { result = found; });
            QTRY_VERIFY_WITH_TIMEOUT(!result.isEmpty(), 30'000);
            QVariantMap record = result["update"].toMap();
            record["history"] = server.url("/Example-102.html").toString(); // without pins as the feed has it
            result["update"] = record;
            for (const QByteArray body : {"<p>notes 102", "<p>buy"}) {
                server.answer("/Example-102.html", {{.body = body}});
                std::optional<QByteArray> notes;
                downloadHistory(config, CheckResult::fromMap(result),
                                [&](const QByteArray &came) { notes = came; });
                QTRY_VERIFY_WITH_TIMEOUT(notes, 30'000);
                QCOMPARE(*notes, pinned && body == "<p>buy" ? QByteArray() : body);
            }
        }
    }
};

QTEST_GUILESS_MAIN(ThreatsTest)
#include "tst_Threats.moc"
