// Signed release folders: what is signed again, and what is not, whoever had the folder meanwhile.
#include "publish/ReleaseFolder.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"

#include <QProcess>

#include <sys/stat.h>

using namespace zel;

class tst_releases : public QObject
{
    Q_OBJECT

    const TemporaryTree m_tree;
    const TestCertificate m_a = makeTestCertificate(m_tree.path(), "a");
    const TestCertificate m_b = makeTestCertificate(m_tree.path(), "b");
    const TestCertificate m_stranger = makeTestCertificate(m_tree.path(), "stranger");
    mutable QString m_said; // by the last command
    const QString m_keyA = "--key|{}/a.key|--cert|{}/a.crt|", m_keyB = "--key|{}/b.key|--cert|{}/b.crt|";

    // The words stand between bars; {} is the folder of the test. Returns what is complained of.
    QString run(const QString &line) const
    {
        QProcess process;
        process.start(ZELUPDATER, QString(line).replace("{}", m_tree.path()).split(u'|', Qt::SkipEmptyParts));
        if (!process.waitForFinished(120'000))
            qFatal("zelupdater does not end");
        const QString complaint = QString::fromUtf8(process.readAllStandardError());
        m_said = QString::fromUtf8(process.readAllStandardOutput());
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

    static QJsonObject changed(QJsonObject record, const QString &key, const QJsonValue &value)
    {
        record[key] = value;
        return record;
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
        QVERIFY(run("release|{}/101/A.app|{}/r|" + m_keyA).contains("refresh --sign-unsigned 100"));
        QVERIFY(run("refresh|{}/r|" + m_keyA).contains("build 100 in"));
        QVERIFY(run("refresh|{}/r|--sign-unsigned|100|" + m_keyB).contains("sealed by CN = a"));
        QVERIFY(run("refresh|{}/r|--sign-unsigned|100,7|" + m_keyA).contains("build 7 is to be signed"));
        QVERIFY(run("refresh|{}/r|--sign-unsigned|all|" + m_keyA).startsWith("2 "));
        QCOMPARE(m_tree.read("r/releases.json"), before);
        QCOMPARE(run("refresh|{}/r|--sign-unsigned|100|" + m_keyA), "");
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
        QJsonObject own = good[1].toObject();
        own.remove("signed");
        own.remove("issued");
        own["build"] = 105;
        const QJsonObject older =
            signedRecord(changed(own, "issued", good[0]["issued"].toInteger() + 1), signersOf({m_a}));
        const QJsonObject planted = changed(own, "issued", good[0]["issued"]);
        const QJsonObject other = changed(planted, "builds", QJsonArray{105});
        const auto rows = std::initializer_list<std::pair<QJsonArray, const char *>>{
            {{good[0], own}, "is not signed, and others are"},
            {{own}, "build 105 in"},
            {{good[0], good[1], signedRecord(other, signersOf({m_a}))},
             "build 105: it was signed in another feed"},
            {{good[0], good[1], signedRecord(changed(planted, "identifier", "org.b"), signersOf({m_a}))},
             "build 105: it is for another application ('org.b')"},
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

    void anEmptiedFeedIsNoFirstRelease()
    {
        const QByteArray good = m_tree.read("r/releases.json");
        setFeed({});
        QVERIFY(run("refresh|{}/r|" + m_keyA).contains("holds no releases"));
        QVERIFY(run("release|{}/102/A.app|{}/r|" + m_keyA).contains("bring that back"));
        QFile::remove(m_tree.path("r/releases.json"));
        QVERIFY(run("release|{}/102/A.app|{}/r|" + m_keyA).contains("give --start-anew"));
        QCOMPARE(run("release|{}/102/A.app|{}/r|--start-anew|" + m_keyA), "");
        verifySigned({m_a.fingerprint});
        m_tree.write("r/releases.json", good);
        m_tree.write("cut/A-100.zip", "left by a first release that was cut off");
        QCOMPARE(run("release|{}/100/A.app|{}/cut|" + m_keyA), "");
    }

    // Somebody else writes to the folder, too.
    void oddFiles()
    {
        const auto refused = [&](const QString &name, const char *why) {
            const QString complaint = run("refresh|{}/r|" + m_keyA);
            QVERIFY2(complaint.contains(name + why), qPrintable(name + why + complaint));
        };
        for (const char *name :
             {"r/releases.json", "r/A-100.zip", "r/A-100-to-101.zelpatch", "r/A-101.html"}) {
            const QByteArray bytes = m_tree.read(name);
            const QString path = m_tree.path(name);
            QFile::remove(path);
            m_tree.link(name, "/dev/zero");
            refused(name, " is a link");
            QFile::remove(path);
            QCOMPARE(::mkfifo(qPrintable(path), 0600), 0);
            refused(name, " is no file");
            QFile::remove(path);
            m_tree.write(name, bytes);
        }
        for (const auto &[name, size] : {std::pair("r/releases.json", 16), std::pair("r/A-101.html", 4)}) {
            const QByteArray bytes = m_tree.read(name);
            QVERIFY(QFile::resize(m_tree.path(name), (size << 20) + 1));
            refused(name, " is larger than");
            m_tree.write(name, bytes);
        }
        QVERIFY(run("release|{}/102/A.app|{}/r|--notes|/dev/zero|" + m_keyA).contains("is larger than"));
        const QByteArray good = m_tree.read("r/releases.json");
        m_tree.write("r/releases.json", "[1]");
        refused("r/releases.json", " is not a feed");
        m_tree.write("r/releases.json", good);
        QCOMPARE(::chmod(qPrintable(m_tree.path("r")), 0777), 0);
        QCOMPARE(run("refresh|{}/r|" + m_keyA), "");
        QVERIFY(m_said.contains("anybody may write to"));
        QCOMPARE(::chmod(qPrintable(m_tree.path("r")), 0755), 0);
    }

    void feedsStayReadable()
    {
        QCOMPARE(run("release|{}/100/A.app|{}/big"), "");
        const auto withText = [&](qsizetype bytes) {
            QJsonArray records = QJsonDocument::fromJson(m_tree.read("big/releases.json")).array();
            records[0] = changed(records[0].toObject(), "version", QString(bytes, u'x'));
            return m_tree.write("big/releases.json", QJsonDocument(records).toJson());
        };
        withText(3'700'000);
        QVERIFY(run("release|{}/101/A.app|{}/big").contains("take the records of the oldest builds out"));
        QVERIFY(!QFileInfo::exists(m_tree.path("big/A-101.zip")));
        withText(3'000'000);
        QCOMPARE(run("release|{}/101/A.app|{}/big"), "");
        QVERIFY(m_said.contains("soon too large"));
        QCOMPARE(m_tree.read("big/releases.json").count('\n'), 4); // each record has its line
        withText(300'000);
        QVERIFY(
            run("refresh|{}/big|--sign-unsigned|100,101|" + m_keyA).contains("build 100: it is too large"));
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
        const QJsonArray released = feed();
        QJsonArray records;
        for (const QJsonValue value : released) {
            QJsonObject record = value.toObject();
            for (const char *key : {"signed", "hash", "sha256", "size", "historysha256", "identifier"})
                record.remove(key);
            QJsonArray patches;
            for (const QJsonValue patch : record["patches"].toArray())
                patches.append(QJsonObject{{"build", patch["build"]}, {"file", patch["file"]}});
            record["patches"] = patches;
            records.append(record);
        }
        const auto refusal = [&](const QString &key, const QJsonValue &value) {
            QJsonArray changed = records;
            QJsonObject record = records[0].toObject();
            record[key] = value;
            changed[0] = record;
            setFeed(changed);
            return run("refresh|{}/r|--sign-unsigned|100,101,102|" + m_keyA);
        };
        QVERIFY(refusal("build", 106).contains("build 100 is to be signed, and is not in"));
        QVERIFY(refusal("file", "A-101.zip").contains("of another build"));
        QVERIFY(refusal("file", "../notes.html").contains("there is no file"));
        QVERIFY(refusal("hash", "0").contains("is not the file"));
        QVERIFY(refusal("history", "http://elsewhere/").contains("there is no file"));
        const QJsonArray once = records;
        records.append(records[0]);
        QVERIFY(refusal("arch", "arm").contains("it has two records"));
        records = once;
        QCOMPARE(refusal("issued", 9e12), "");
        verifySigned({m_a.fingerprint});
        QCOMPARE(feed().size(), 3);
        QVERIFY(feed()[0]["issued"].toInteger() <= QDateTime::currentSecsSinceEpoch() + 60);
        const QJsonValue kept = feed()[2]["patches"];
        QCOMPARE(kept, released[2]["patches"]); // of both formats

        // Patches that lead elsewhere, or nowhere, are not signed for.
        const QJsonObject elsewhere{{"build", 100}, {"file", "A-100-to-101.zelpatch"}};
        const QJsonObject nowhere{{"build", 101}, {"file", "A-100.zip"}};
        const QJsonObject fromUnknown{{"build", 99}, {"file", "A-100-to-102.zelpatch"}};
        records[2] =
            changed(records[2].toObject(), "patches", QJsonArray{elsewhere, kept[0], nowhere, fromUnknown});
        QCOMPARE(refusal("identifier", "org.evil"), "");
        verifySigned({m_a.fingerprint});
        QCOMPARE(feed()[2]["patches"], QJsonArray{kept[0]});
        for (const char *said : {"from build 100 is left out: the patch does not give the new bundle",
                                 "from build 101 is left out: the patch does not apply",
                                 "from build 99 is left out: that is not in the feed"})
            QVERIFY2(m_said.contains(said), qPrintable(m_said));
    }
};

QTEST_GUILESS_MAIN(tst_releases)
#include "tst_releases.moc"
