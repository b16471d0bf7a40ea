// Signed release folders: what is signed again, and what is not, whoever had the folder meanwhile.
#include "publish/ReleaseFolder.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"

#include <QProcess>

using namespace zel;

class tst_releases : public QObject
{
    Q_OBJECT

    const TemporaryTree m_tree;
    const TestCertificate m_a = makeTestCertificate(m_tree.path(), "a");
    const TestCertificate m_b = makeTestCertificate(m_tree.path(), "b");
    const TestCertificate m_stranger = makeTestCertificate(m_tree.path(), "stranger");
    const QString m_keyA = "--key|{}/a.key|--cert|{}/a.crt|", m_keyB = "--key|{}/b.key|--cert|{}/b.crt|";

    // The words stand between bars; {} is the folder of the test. Returns what is complained of.
    QString run(const QString &line) const
    {
        QProcess process;
        process.start(ZELUPDATER, QString(line).replace("{}", m_tree.path()).split(u'|', Qt::SkipEmptyParts));
        if (!process.waitForFinished(120'000))
            qFatal("zelupdater does not end");
        const QString complaint = QString::fromUtf8(process.readAllStandardError());
        return process.exitCode() == 0 ? QString() : QString::number(process.exitCode()) + ' ' + complaint;
    }

    const QJsonArray feed() const { return QJsonDocument::fromJson(m_tree.read("r/releases.json")).array(); }
    void setFeed(const QJsonArray &records) const
    {
        m_tree.write("r/releases.json", QJsonDocument(records).toJson());
    }

    void makeBundle(const QString &build) const
    {
        m_tree.write(build + "/A.app/Contents/Info.plist",
                     "<plist version=\"1.0\"><dict><key>CFBundleVersion</key><string>" + build.toLatin1()
                         + "</string><key>CFBundleIdentifier</key><string>org.a</string></dict></plist>");
        m_tree.write(build + "/A.app/Contents/MacOS/a",
                     QByteArray("program ").repeated(5000) + build.toLatin1(), 0755);
        QCOMPARE(run("sign|{}/" + build + "/A.app|" + m_keyA), "");
    }

    // Whether all records bear the same date and list, and are signed by these, over what stands beside.
    void verifySigned(const QStringList &fingerprints) const
    {
        const QJsonArray records = feed();
        QVERIFY(!records.isEmpty());
        for (const QJsonValue value : records) {
            QJsonObject record = value.toObject();
            const QByteArray message = QByteArray::fromBase64(record["signed"].toString().toLatin1());
            const AcceptedSigners all(fingerprints, fingerprints.size());
            QCOMPARE(verifyMessage(message, all, record["issued"].toInteger()).message, "");
            record.remove("signed");
            QCOMPARE(QJsonDocument::fromJson(contentOf(message)).object(), record);
            QCOMPARE(record["issued"], records[0]["issued"]);
            QCOMPARE(record["builds"].toArray().size(), records.size());
            QCOMPARE(record["identifier"], "org.a");
        }
    }

private slots:
    void initTestCase()
    {
        m_tree.write("notes.html", "<p>notes");
        for (const char *build : {"100", "101", "102"})
            makeBundle(build);
    }

    void aFeedIsSignedWhole()
    {
        QCOMPARE(run("release|{}/100/A.app|{}/r|--notes|{}/notes.html"), "");
        const QByteArray before = m_tree.read("r/releases.json");
        QVERIFY(run("release|{}/101/A.app|{}/r|" + m_keyA).contains("is not signed: take its record out"));
        QVERIFY(run("refresh|{}/r|" + m_keyA).contains("--sign-unsigned"));
        QVERIFY(run("refresh|{}/r|--sign-unsigned|" + m_keyB).contains("sealed by CN = a"));
        QCOMPARE(m_tree.read("r/releases.json"), before);
        QCOMPARE(run("refresh|{}/r|--sign-unsigned|" + m_keyA), "");
        verifySigned({m_a.fingerprint});
        QVERIFY(feed()[0]["historysha256"].toString().size() == 64);
        QCOMPARE(feed()[0]["expires"].toInteger() - feed()[0]["issued"].toInteger(), 30 * 24 * 60 * 60);

        QVERIFY(run("release|{}/101/A.app|{}/r").contains("give --key and --cert"));
        QVERIFY(run("release|{}/101/A.app|{}/fresh|" + m_keyB).contains("who does not sign the record"));
        QVERIFY(run("release|{}/101/A.app|{}/r|" + m_keyA + "--cert|x").startsWith("2 "));
        QVERIFY(run("release|{}/101/A.app|{}/r|--valid|3").startsWith("2 "));
        QVERIFY(run("refresh|{}/r|--valid|366|" + m_keyA).startsWith("2 "));
        QCOMPARE(run("release|{}/101/A.app|{}/r|--notes|{}/notes.html|" + m_keyA), "");
        QCOMPARE(feed().size(), 2);
        verifySigned({m_a.fingerprint});
    }

    // Whoever had the folder has changed it.
    void nothingIsLaundered()
    {
        const QJsonArray good = feed();
        const auto changed = [](QJsonObject record, const QString &key, const QJsonValue &value) {
            record[key] = value;
            return record;
        };
        QJsonObject own = good[1].toObject();
        own.remove("signed");
        own.remove("issued");
        own["build"] = 105;
        const QJsonObject older =
            signedRecord(changed(own, "issued", good[0]["issued"].toInteger() + 1), signersOf({m_a}));
        const QJsonObject planted = changed(own, "issued", good[0]["issued"]);
        const auto rows = std::initializer_list<std::pair<QJsonArray, const char *>>{
            {{good[0], own}, "build 105 in"},
            {{good[0], signedRecord(planted, signersOf({m_stranger}))},
             "build 105: it is signed by CN = stranger"},
            {{good[0]}, "build 101 was signed together with the others, and is gone"},
            {{good[0], changed(own, "signed", "MII")},
             "build 105: what stands under \"signed\" is no signature"},
            {{good[0], older}, "build 105: it was signed at"},
            {{signedRecord(changed(planted, "issued", good[0]["issued"].toInteger() + 3600),
                           signersOf({m_a}))},
             "still to come"},
        };
        for (const QString &command : {QString("refresh|{}/r|"), QString("release|{}/102/A.app|{}/r|")}) {
            for (const auto &[records, reason] : rows) {
                setFeed(records);
                const QByteArray before = m_tree.read("r/releases.json");
                const QString complaint = run(command + m_keyA);
                QVERIFY2(complaint.contains(reason), qPrintable(reason + complaint));
                QCOMPARE(m_tree.read("r/releases.json"), before);
            }
            setFeed(good);
            for (const char *name : {"A-100.zip", "A-101.html"}) {
                const QByteArray bytes = m_tree.read(QString("r/") + name);
                m_tree.write(QString("r/") + name, bytes + "x");
                QVERIFY(run(command + m_keyA).contains("is not the file that the record describes"));
                QFile::remove(m_tree.path(QString("r/") + name));
                QVERIFY(run(command + m_keyA).contains(QString("there is no file \"%1\"").arg(name)));
                m_tree.write(QString("r/") + name, bytes);
            }
        }
        // Beside its signature a record may say what it likes.
        setFeed({changed(changed(good[0].toObject(), "file", "../evil"), "build", 99), good[1]});
        QCOMPARE(run("refresh|{}/r|" + m_keyA), "");
        verifySigned({m_a.fingerprint});
        QCOMPARE(feed()[0]["file"], "A-100.zip");
        const QJsonArray both = feed();
        setFeed({both[1]});
        QCOMPARE(run("refresh|{}/r|--withdrawn|100|" + m_keyA), "");
        verifySigned({m_a.fingerprint});
        setFeed(both);
    }

    // From one key to two, and to the other alone: but what one of two has signed is not signed by both.
    void keysChange()
    {
        QVERIFY(run("refresh|{}/r|" + m_keyA + m_keyB).contains("needed are 2"));
        QCOMPARE(run("refresh|{}/r|--new-signer|" + m_keyA + m_keyB), "");
        verifySigned({m_a.fingerprint, m_b.fingerprint});
        QJsonArray records = feed();
        QJsonObject record = records[1].toObject();
        record.remove("signed");
        records[1] = signedRecord(record, signersOf({m_b}));
        const QJsonArray both = feed();
        setFeed(records);
        QVERIFY(run("refresh|{}/r|" + m_keyA + m_keyB).contains("build 101: not all who are to sign"));
        setFeed(both);
        QVERIFY(run("refresh|{}/r|" + m_keyB).contains("build 100: it is signed by CN = a"));
        QCOMPARE(run("refresh|{}/r|--signer|" + m_a.fingerprint + '|' + m_keyB), "");
        verifySigned({m_b.fingerprint});
        QCOMPARE(run("release|{}/102/A.app|{}/r|--new-signer|" + m_keyB), "");
        verifySigned({m_b.fingerprint});
    }

    // Hosts with a threshold judge the record and the seal by the same pins.
    void severalSignersSealAndSign()
    {
        makeBundle("200");
        QCOMPARE(run("sign|{}/200/A.app|" + m_keyA + m_keyB), "");
        for (const TestCertificate &signer : {m_a, m_b})
            QCOMPARE(run("verify|{}/200/A.app|--signer|" + signer.fingerprint), "");
        QVERIFY(run("sign|{}/200/A.app|--key|x|" + m_keyA).startsWith("2 "));
        QVERIFY(run("release|{}/200/A.app|{}/two|" + m_keyA).contains("sealed by CN = b"));
        QCOMPARE(run("release|{}/200/A.app|{}/two|" + m_keyA + m_keyB), "");
    }

    void unsignedRecordsAreTakenByTheirFiles()
    {
        QJsonArray records;
        for (const QJsonValue value : feed()) {
            QJsonObject record = value.toObject();
            for (const char *key : {"signed", "hash", "sha256", "size", "historysha256", "identifier"})
                record.remove(key);
            records.append(record);
        }
        const auto refusal = [&](const QString &key, const QJsonValue &value) {
            QJsonArray changed = records;
            QJsonObject record = records[0].toObject();
            record[key] = value;
            changed[0] = record;
            setFeed(changed);
            return run("refresh|{}/r|--sign-unsigned|" + m_keyA);
        };
        QVERIFY(refusal("build", 106).contains("of another build"));
        QVERIFY(refusal("file", "A-101.zip").contains("of another build"));
        QVERIFY(refusal("file", "../notes.html").contains("there is no file"));
        QVERIFY(refusal("hash", "0").contains("is not the file"));
        QVERIFY(refusal("history", "http://elsewhere/").contains("there is no file"));
        const QJsonArray once = records;
        records.append(records[0]);
        QVERIFY(refusal("arch", "arm").contains("it has two records"));
        records = once;
        QCOMPARE(refusal("identifier", "org.evil"), "");
        verifySigned({m_a.fingerprint});
        QCOMPARE(feed().size(), 3);
    }
};

QTEST_GUILESS_MAIN(tst_releases)
#include "tst_releases.moc"
