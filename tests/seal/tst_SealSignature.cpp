#include "seal/SealSignature.h"
#include "support/Case.h"
#include "support/Signing.h"
#include "support/TemporaryTree.h"

#include <openssl/err.h>
#include <QProcess>

namespace {

// Replaces an object identifier's last number where it stands first.
QByteArray changed(QByteArray cms, const char *identifier, char last)
{
    const QByteArray name = QByteArray::fromHex(identifier);
    const qsizetype at = cms.indexOf(name);
    if (at < 0)
        qFatal("there is no %s", identifier);
    cms[at + name.size() - 1] = last;
    return cms;
}

// An element of DER with up to 64 KiB.
QByteArray element(uchar tag, const QByteArray &content)
{
    const auto size = ushort(content.size());
    const QByteArray tagged(1, char(tag));
    return (size < 128 ? tagged : tagged + '\x82' + char(size >> 8)) + char(size) + content;
}

// A signature by nobody, with what is said to be certificates and signers.
QByteArray byNobody(const QByteArray &certificates, const QByteArray &signers)
{
    const QByteArray sha256 = QByteArray::fromHex("300b0609608648016503040201");
    return element(0x30,
                   QByteArray::fromHex("06092a864886f70d010702")
                       + element(0xa0,
                                 element(0x30,
                                         QByteArray::fromHex("020101") + element(0x31, sha256)
                                             + QByteArray::fromHex("300b06092a864886f70d010701")
                                             + certificates + element(0x31, signers))));
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
        const QByteArray empty = QByteArray::fromHex("3000");
        const char *const data = "06092a864886f70d010701", *const digested = "06092a864886f70d010705";
        const QByteArray ofDigested = cms({m_signer}, {"-econtent_type", "1.2.840.113549.1.7.5"});
        // What is said in part; nothing where the signature is valid.
        std::vector<std::tuple<const char *, QByteArray, QString>> rows{
            {"own", m_own, ""},
            {"two signers", cms({m_signer, m_other}), ""},
            {"without signed attributes", cms({m_signer}, {"-noattr"}), ""},
            {"two signers, one broken", twoWithOneBroken, "does not verify"},
            {"content inside", cms({m_signer}, {"-nodetach"}), "not detached"},
            {"no signer", byNobody({}, {}), "no signer"},
            // None of them can be decoded, and none is.
            {"a flood of certificates", byNobody(element(0xa0, empty.repeated(17)), empty),
             "too many certificates"},
            {"few certificates", byNobody(element(0xa0, empty.repeated(16)), empty), "malformed"},
            {"a flood of signers", byNobody({}, empty.repeated(9)), "too many signers"},
            {"revocation lists", byNobody(element(0xa1, empty), empty), "malformed"},
            {"large", byNobody({}, {}) + QByteArray(256 << 10, 0), "too large"},
            {"something after it", m_own + '\0', "malformed"},
            {"of another type", ofDigested, "something else than data"},
            {"of another type, said to be data", changed(ofDigested, digested, 1),
             "something else than data"},
            {"of data, said to be of another type", changed(m_own, data, 5), "something else than data"},
            {"nine signers", cms(QList<TestCertificate>(9, m_signer), {"-nocerts"}), "too many signers"},
            {"no certificate", cms({m_signer}, {"-nocerts"}), "does not verify"},
            {"unknown digest", changed(m_own, "0609608648016503040201", 0x7f), "not SHA-2"},
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
            QCOMPARE(ERR_peek_error(), 0UL); // or the host took it for one of its own
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
