#include "seal/SealSignature.h"
#include "support/Case.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"

#include <QProcess>

namespace {

// The first digest in the structure is the one that it announces for its signers.
QByteArray announcingUnknownDigest(QByteArray cms)
{
    const QByteArray sha256 = QByteArray::fromHex("0609608648016503040201");
    const qsizetype at = cms.indexOf(sha256);
    if (at < 0)
        qFatal("no digest is announced");
    cms[at + sha256.size() - 1] = 0x7f;
    return cms;
}

// A signature over "content" of whatever shape.
QByteArray cms(const QList<TestCertificate> &signers, const QStringList &words = {})
{
    QStringList all{"cms", "-sign", "-binary", "-outform", "DER"};
    for (const TestCertificate &signer : signers)
        all << "-signer" << signer.certificateFile << "-inkey" << signer.keyFile;
    QProcess openssl;
    openssl.start("openssl", all + words);
    openssl.write("content");
    openssl.closeWriteChannel();
    if (!openssl.waitForFinished() || openssl.exitCode() != 0)
        qFatal("cannot sign: %s", openssl.readAllStandardError().constData());
    return openssl.readAllStandardOutput();
}

} // namespace

class tst_SealSignature : public QObject
{
    Q_OBJECT

    TemporaryTree m_keys;
    TestCertificate m_signer = makeTestCertificate(m_keys.path(), "signer");
    TestCertificate m_other = makeTestCertificate(m_keys.path(), "other");
    QByteArray m_own;

private slots:
    void initTestCase()
    {
        QVERIFY(!zel::signWith(signersOf({m_signer}), "content", zel::SignatureKind::Detached, m_own));
    }

    void signatures()
    {
        QByteArray twoWithOneBroken = cms({m_signer, m_other});
        twoWithOneBroken.back() ^= 1; // the signature value of one ends the structure
        const QByteArray nobody = QByteArray::fromHex("302306092a864886f70d010702a0163014020101"
                                                      "3100300b06092a864886f70d0107013100");
        // What is said in part; nothing where the signature is valid.
        std::vector<std::tuple<const char *, QByteArray, QString>> rows{
            {"own", m_own, ""},
            {"two signers", cms({m_signer, m_other}), ""},
            {"without signed attributes", cms({m_signer}, {"-noattr"}), ""},
            {"two signers, one broken", twoWithOneBroken, "does not verify"},
            {"content inside", cms({m_signer}, {"-nodetach"}), "not detached"},
            {"no signer", nobody, "no signer"},
            {"nine signers", cms(QList<TestCertificate>(9, m_signer), {"-nocerts"}), "too many signers"},
            {"no certificate", cms({m_signer}, {"-nocerts"}), "does not verify"},
            {"unknown digest", announcingUnknownDigest(m_own), "not SHA-2"},
            {"SHA-1", cms({m_signer}, {"-md", "sha1"}), "not SHA-2"},
        };
        const auto madeKey = [&](const QStringList &key, const QString &message) {
            rows.emplace_back("made key", cms({makeTestCertificate(m_keys.path(), "made", key)}), message);
        };
        madeKey({"rsa:2048"}, "");
        madeKey({"rsa:1024"}, "too weak");
        madeKey({"rsa:2048", "-pkeyopt", "rsa_keygen_pubexp:4294967311"}, "too long");
        madeKey({"rsa:8200", "-pkeyopt", "rsa_keygen_primes:5"}, "too long");
        madeKey({"ec", "-pkeyopt", "ec_paramgen_curve:sect571r1"}, "too long");
        madeKey({"ec", "-pkeyopt", "ec_paramgen_curve:P-384"}, "");
        madeKey({"ec", "-pkeyopt", "ec_paramgen_curve:P-192"}, "too weak");
        for (const auto &[name, bytes, message] : rows) {
            const Case context(name + (", " + message));
            const ZELError error = zel::verifySignature("content", bytes);
            QCOMPARE(bool(error), !message.isEmpty());
            QVERIFY2(error.message.contains(message), qPrintable(error.message));
        }
    }

    void damagedSignatures()
    {
        for (qsizetype i = 0; i < m_own.size(); ++i) {
            QVERIFY(zel::verifySignature("content", m_own.left(i)));
            QByteArray damaged = m_own;
            damaged[i] = char(damaged[i] ^ 0x55);
            zel::verifySignature("content", damaged); // some bytes do not count, as the certificate's dates
        }
    }

    void pinnedSigners()
    {
        const auto isAccepted = [&](const QStringList &pins) {
            return !zel::verifySignature("content", m_own, pins);
        };
        const QString bare = m_signer.fingerprint.toLower().remove(':');
        QVERIFY(isAccepted({m_signer.fingerprint}));
        QVERIFY(isAccepted({m_other.fingerprint, m_signer.fingerprint}));
        QVERIFY(isAccepted({"cannot be read", bare}));
        QVERIFY(!isAccepted({m_other.fingerprint}));
        QVERIFY(!isAccepted(QStringList()));
        QVERIFY(!isAccepted({bare + ',' + bare}));
        QVERIFY(!isAccepted({QString()}));
    }
};

QTEST_GUILESS_MAIN(tst_SealSignature)
#include "tst_SealSignature.moc"
