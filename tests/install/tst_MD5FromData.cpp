#include "install/MD5Digest.h"
#include "install/MD5FromData.h"
#include "install/ZELUpdaterApplyPatch.h"
#include "support/Case.h"
#include "support/TemporaryTree.h"

#include <openssl/evp.h>
#include <QCryptographicHash>
#include <QRegularExpression>

class tst_MD5FromData : public QObject
{
    Q_OBJECT
private slots:
    // The reference is another implementation of MD5; whole chunks, and nothing at all, have no digest.
    void lengths()
    {
        const TemporaryTree tree;
        for (const int length : {0, 1, 32767, 32768, 32769, 65536, 98304, 98305, 262144, 262145, 300000}) {
            const Case current(QString::number(length));
            QByteArray data(length, 'a');
            for (int i = 0; i < length; i += 7)
                data[i] = char(i);
            const QByteArray digest = QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex();
            const QString expected = length % 32768 == 0 ? "" : QString::fromLatin1(digest);
            QCOMPARE(MD5FromData(data), expected);
            QVERIFY(!MD5FromData(data).isNull());
            QCOMPARE(zel::MD5FromFile(tree.write("f", data)), std::optional(expected));
        }
    }

    // What a system does that allows approved algorithms only. Whole chunks must have no hash then, either.
    void missingDigests()
    {
        const TemporaryTree tree;
        for (const QByteArray &data : {QByteArray("abc"), QByteArray(32768, 'a')}) {
            const QString file = tree.write("f", data);
            QCOMPARE(EVP_set_default_properties(nullptr, "fips=yes"), 1);
            const QString ofData = MD5FromData(data);
            const auto ofFile = zel::MD5FromFile(file);
            QCOMPARE(EVP_set_default_properties(nullptr, ""), 1);
            QVERIFY(!QRegularExpression("^([0-9a-f]{32})?$").match(ofData).hasMatch());
            QCOMPARE(ofFile, std::nullopt);
        }
        QCOMPARE(zel::MD5FromFile("/nowhere"), std::nullopt);
    }

    void escape()
    {
        QCOMPARE(ZELUpdaterEscapeString("a (b) & 'c' \"d\" $e \\ ;"),
                 "a\\ \\(b\\)\\ \\&\\ 'c'\\ \"d\"\\ $e\\ \\\\ ;");
    }
};

QTEST_GUILESS_MAIN(tst_MD5FromData)
#include "tst_MD5FromData.moc"
