#include "seal/SealedItems.h"
#include "support/Case.h"

#include <QtTest>

namespace {

QByteArray entry(const QByteArray &path, const QByteArray &value)
{
    return "<key>" + path + "</key>" + value;
}

QByteArray listOf(const QByteArray &files, const QByteArray &links = {})
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
           "<key>version</key><integer>1</integer><key>files</key><dict>"
        + files + "</dict><key>links</key><dict>" + links + "</dict></dict></plist>";
}

QByteArray digestOf(const QByteArray &bytes)
{
    return "<data>" + QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toBase64() + "</data>";
}

} // namespace

class tst_SealedItems : public QObject
{
    Q_OBJECT

private slots:
    void listsThatAreMalformed()
    {
        const QByteArray good = entry("a", digestOf("a"));
        QVERIFY(zel::fromPropertyList(listOf(good)));
        for (const QByteArray &list : {
                 listOf(entry("a", digestOf("x")) + good),
                 listOf(good + "</dict><key>files</key><dict>" + good),
                 listOf(good).replace("<integer>1", "<integer>2"),
                 listOf(good + "</dict><key>rules</key><dict>"),
                 listOf(good).replace("<key>links</key><dict></dict>", ""),
                 listOf(good).replace("<dict></dict>", "<array></array>"),
                 listOf(entry("a", "<string>a</string>")),
                 listOf(entry("a", "<data>AAEC</data>")),
                 listOf(good, entry("b", digestOf("x"))),
                 listOf(entry("a", QByteArray("<array>").repeated(1'000'000))), // to exhaust the stack
                 listOf(good).replace("<key>a", "<key id=\"1\">a"),
                 listOf(good + entry("&nbsp;", digestOf("a"))),
                 listOf(good + entry("&#0;", digestOf("a"))),
                 listOf(good) + "<dict/>",
                 listOf(good).chopped(20),
                 QByteArray("bplist00"),
             })
            QVERIFY2(!zel::fromPropertyList(list), list.left(1000));
    }

    void pathsAreComparedAsTheyStand()
    {
        const zel::SealedItems found{{{"a", QCryptographicHash::hash("a", QCryptographicHash::Sha256)}}, {}};
        const auto isSame = [&](const QByteArray &path) {
            const auto sealed = zel::fromPropertyList(listOf(entry(path, digestOf("a"))));
            return sealed && !zel::compareItems(*sealed, found, {}, {});
        };
        QVERIFY(isSame("a"));
        QVERIFY(isSame("&#x61;"));
        QVERIFY(!isSame("./a"));
    }

    void links()
    {
        const auto chain = [](int links) {
            QString text = "l0>x";
            for (int i = 1; i < links; ++i)
                text += QString(" l%1>l%2").arg(i).arg(i - 1);
            return text;
        };
        const auto around = [](const QString &name, int times) {
            return QString(name + "/../").repeated(times);
        };
        // "path>target", with blanks between.
        const QStringList accepted{"d/e/a>../../b",
                                   "d/a>..",
                                   "d/a>.//b/./",
                                   "x>d/e a>x/../..",
                                   "a!/b>../d/x a/c>../a!/b/.. d/x>y/z",
                                   chain(40),
                                   "a>" + around("d", 2000)};
        const QStringList refused{"a>/",
                                  "a>..",
                                  "d/e/up>../.. a>d/e/up/..",
                                  "x>d/e a>x/../../..",
                                  "a>a",
                                  "a>b/c b>a",
                                  chain(41),
                                  "a>" + around("d", 2048),
                                  "l>" + around("d", 300) + " a>" + around("l", 8),
                                  "a>" + around("d", 2000) + " b>" + around("d", 2000)};
        for (const QString &text : accepted + refused) {
            const Case context(text.left(200));
            zel::SealedItems items;
            for (const QString &link : text.split(' '))
                items.links.insert(link.section('>', 0, 0).toUtf8(), link.section('>', 1).toUtf8());
            qint64 names = 6000;
            QCOMPARE(!zel::checkLinks(items, {}, names), accepted.contains(text));
        }
    }

    void listedItemsAreTheSameWhenReadBack()
    {
        zel::SealedItems items;
        for (int c = 1; c < 256; ++c)
            items.files.insert("a" + QString(QChar(c)).toUtf8() + 'b', QByteArray(32, char(c)));
        items.links.insert("a", "");
        items.links.insert("b", " \r\n&#13; ");
        const QByteArray xml = zel::toPropertyList(items);
        QVERIFY(!xml.contains('\r'));
        const auto read = zel::fromPropertyList(xml);
        QVERIFY(read);
        QCOMPARE(read->files, items.files);
        QCOMPARE(read->links, items.links);
    }
};

QTEST_GUILESS_MAIN(tst_SealedItems)
#include "tst_SealedItems.moc"
