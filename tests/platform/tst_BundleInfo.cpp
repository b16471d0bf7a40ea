#include "platform/BundleInfo.h"
#include "platform/PropertyList.h"
#include "support/TemporaryTree.h"

#include <QtEndian>

namespace {

QByteArray xml(const QByteArray &body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

QByteArray build(const QByteArray &value)
{
    return xml("<dict><key>CFBundleVersion</key>" + value + "</dict>");
}

// A binary list with two-byte references and four-byte offsets, the first object at the top.
QByteArray binary(const QByteArrayList &objects)
{
    QByteArray list = "bplist00";
    QByteArray offsets;
    for (const QByteArray &object : objects) {
        const quint32 offset = qToBigEndian(quint32(list.size()));
        offsets.append(reinterpret_cast<const char *>(&offset), sizeof offset);
        list.append(object);
    }
    const quint64 numbers[] = {qToBigEndian(quint64(objects.size())), 0, qToBigEndian(quint64(list.size()))};
    list.append(offsets).append(QByteArray(6, '\0')).append("\x04\x02", 2);
    return list.append(reinterpret_cast<const char *>(numbers), sizeof numbers);
}

QByteArray reference(qsizetype object)
{
    const quint16 number = qToBigEndian(quint16(object));
    return {reinterpret_cast<const char *>(&number), sizeof number};
}

const QByteArray pairMarker = "\xd1"; // a dictionary of one pair

// A dictionary whose one value is the object with the number 2.
QByteArrayList topWith(const QByteArrayList &objects)
{
    return QByteArrayList{pairMarker + reference(1) + reference(2), "Qk"}
    + objects; // Q: a string of one byte
}

// Each level holds the next one, or the same one several times.
QByteArray nestedBinary(int depth, int times = 1)
{
    QByteArrayList arrays;
    for (int i = 0; i < depth; ++i)
        arrays.append(char(0xa0 + times) + reference(i + 3).repeated(times));
    return binary(topWith(arrays + QByteArrayList{"\x09"}));
}

QByteArray cyclicBinary()
{
    return binary(topWith({"\xa1" + reference(3), "\xa1" + reference(2)}));
}

// An array that holds one long string many times.
QByteArray repeatingBinary()
{
    const QByteArray text = QByteArray("\x5f\x12\x00\x01\x00\x00", 6) + QByteArray(0x10000, 'x');
    return binary(topWith({QByteArray("\xaf\x11\x40\x00", 4) + reference(3).repeated(0x4000), text}));
}

} // namespace

class tst_BundleInfo : public QObject
{
    Q_OBJECT
private slots:
    void values_data()
    {
        QTest::addColumn<QByteArray>("element");
        QTest::addColumn<QVariant>("expected");

        const auto row = [](const char *name, const QByteArray &element, const QVariant &expected) {
            QTest::newRow(name) << element << expected;
        };
        row("string", "<string>a &lt;ö</string>", "a <ö");
        row("empty string", "<string></string>", "");
        row("integer", "<integer>9007199254740993</integer>", qint64(9007199254740993));
        row("negative", "<integer>-5</integer>", qint64(-5));
        row("real", "<real>7.25</real>", 7.25);
        row("booleans", "<array><true/><false/></array>", QVariantList{true, false});
        row("data", "<data>AAEC</data>", QByteArray("\0\1\2", 3));
        row("date", "<date>2001-01-02T00:00:01Z</date>", QDateTime({2001, 1, 2}, {0, 0, 1}, Qt::UTC));
        row("array", "<array><string>a</string><integer>1</integer></array>", QVariantList{"a", qint64(1)});
        row("dictionary", "<dict><key>k</key><true/></dict>", QVariantMap{{"k", true}});
    }

    void values()
    {
        QFETCH(QByteArray, element);
        QFETCH(QVariant, expected);
        const auto list = zel::readPropertyList(xml("<dict><key>value</key>" + element + "</dict>"));
        QVERIFY(list);
        QCOMPARE(list->value("value"), expected);
        QCOMPARE(list->value("value").typeId(), expected.typeId());
    }

    void binaryValues()
    {
        const auto list = zel::readPropertyList(binary(
            topWith({"\xa3" + reference(1) + reference(1) + reference(3), QByteArray("\x11\x1b\x59")})));
        QVERIFY(list);
        QCOMPARE(list->value("k"), QVariant(QVariantList{QString("k"), QString("k"), qint64(7001)}));
    }

    void refusedLists_data()
    {
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("no bytes") << QByteArray();
        QTest::newRow("text") << QByteArray("CFBundleVersion = 1;");
        QTest::newRow("array at the top") << xml("<array/>");
        QTest::newRow("nested to exhaust the stack")
            << xml("<dict><key>k</key>" + QByteArray("<array>").repeated(500'000)
                   + QByteArray("</array>").repeated(500'000) + "</dict>");
        QTest::newRow("keys to be compared for minutes")
            << xml("<dict>" + QByteArray("<key>k</key><true/>").repeated(50'000) + "</dict>");
        QTest::newRow("references to be replaced for minutes")
            << xml("<dict><key>k</key><string>" + QByteArray("&lt;").repeated(1 << 19) + "</string></dict>");
        QTest::newRow("binary, nested to exhaust the stack") << nestedBinary(60'000);
        QTest::newRow("binary, doubling at each level") << nestedBinary(30, 2);
        QTest::newRow("binary, cyclic") << cyclicBinary();
        QTest::newRow("binary, one long string very often") << repeatingBinary();
        QTest::newRow("binary, reference to no object") << binary(topWith({}));
        QTest::newRow("binary, NUL in a key")
            << binary({pairMarker + reference(1) + reference(1), QByteArray("\x62\0a\0\0", 5)});
    }

    void refusedLists()
    {
        QFETCH(QByteArray, bytes);
        QVERIFY(!zel::readPropertyList(bytes));
    }

    void deepButBoundedListsAreCut()
    {
        const auto list = zel::readPropertyList(nestedBinary(4000));
        QVERIFY(list);
        int depth = 0;
        for (QVariant value = list->value("k"); value.typeId() == QMetaType::QVariantList; ++depth)
            value = value.toList().value(0);
        QCOMPARE(depth, 64);
    }

    // A list cut or damaged at any byte is read or refused, never a crash.
    void damagedLists()
    {
        const QByteArrayList lists{build("<string>7001</string>"),
                                   binary(topWith({"\xa2" + reference(3) + reference(4), "Qa",
                                                   QByteArray("\x5f\x10\x11"
                                                              "12345678901234567",
                                                              20)}))};
        for (const QByteArray &whole : lists) {
            QVERIFY(zel::readPropertyList(whole));
            for (qsizetype i = 0; i < whole.size(); ++i) {
                zel::readPropertyList(whole.left(i));
                for (const char byte : {'\0', '\x0f', '\x7f', '\xff'}) {
                    QByteArray damaged = whole;
                    damaged[i] = byte;
                    zel::readPropertyList(damaged);
                }
            }
        }
    }

    void builds_data()
    {
        QTest::addColumn<QString>("file"); // none when empty
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<qint64>("expected");

        const auto row = [](const char *name, const char *file, const QByteArray &bytes, qint64 expected) {
            QTest::newRow(name) << file << bytes << expected;
        };
        row("text", "Contents/Info.plist", build("<string>7001</string>"), 7001);
        row("number", "Contents/Info.plist", build("<integer>7001</integer>"), 7001);
        row("no Contents", "Info.plist", build("<string>70.1</string>"), 70);
        row("no key", "Info.plist", xml("<dict/>"), 0);
        row("array for a value", "Info.plist", build("<array/>"), 0);
        row("garbage", "Contents/Info.plist", "garbage", 0);
        row("too large", "Info.plist", build("<string>1</string>") + QByteArray(4 << 20, ' '), 0);
        row("no plist", "", {}, 0);
    }

    void builds()
    {
        QFETCH(QString, file);
        QFETCH(QByteArray, bytes);
        QFETCH(qint64, expected);
        const TemporaryTree tree;
        tree.directory("App.app");
        if (!file.isEmpty())
            tree.write("App.app/" + file, bytes);
        const QString link = tree.link("Link.app", "App.app");
        QCOMPARE(zel::bundleBuild(tree.path("App.app")), std::optional<qint64>(expected));
        QCOMPARE(zel::bundleBuild(link), std::optional<qint64>(expected));
    }

    void innerPlistComesFirst()
    {
        const TemporaryTree tree;
        tree.write("App.app/Info.plist", build("<string>1</string>"));
        tree.write("App.app/Contents/Info.plist", build("<string>2</string>"));
        QCOMPARE(zel::bundleBuild(tree.path("App.app")), std::optional<qint64>(2));
    }

    void whatIsNoBundle()
    {
        const TemporaryTree tree;
        QVERIFY(!zel::bundleBuild(tree.path("missing.app")));
        QVERIFY(!zel::bundleBuild(tree.write("file.app", "text")));
        QVERIFY(!zel::bundleBuild(QString()));
    }

    // Opened to be read, they would wait for a writer.
    void pipesInPlaceOfFiles()
    {
        const TemporaryTree tree;
        tree.directory("App.app");
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path("App.app/Info.plist")).constData(), 0600), 0);
        QCOMPARE(zel::bundleInfo(tree.path("App.app")), std::optional<QVariantMap>(QVariantMap()));
        tree.write("App.app/Contents/Info.plist",
                   xml("<dict><key>CFBundleExecutable</key><string>run</string></dict>"));
        tree.directory("App.app/Contents/MacOS");
        QCOMPARE(::mkfifo(QFile::encodeName(tree.path("App.app/Contents/MacOS/run")).constData(), 0600), 0);
        QCOMPARE(zel::ensureProgramIsExecutable(tree.path("App.app")).message, QString());
    }

    void programs_data()
    {
        QTest::addColumn<QString>("name"); // in the plist
        QTest::addColumn<int>("before");
        QTest::addColumn<int>("after");
        QTest::addColumn<QString>("link"); // what is moved away and made a link

        const auto row = [](const char *title, const char *name, int before, int after,
                            const char *link = "") {
            QTest::newRow(title) << name << before << after << link;
        };
        row("not executable", "run", 0644, 0755);
        row("private", "run", 0600, 0700);
        row("executable", "run", 0711, 0711);
        row("for others only", "run", 0655, 0755);
        row("another one named", "other", 0644, 0644);
        row("none named", "", 0644, 0644);
        row("path", "../MacOS/run", 0644, 0644);
        row("link", "run", 0644, 0644, "App.app/Contents/MacOS/run");
        row("behind a link", "run", 0644, 0644, "App.app/Contents/MacOS");
        row("bundle is a link", "run", 0644, 0644, "App.app");
    }

    void programs()
    {
        QFETCH(QString, name);
        QFETCH(int, before);
        QFETCH(int, after);
        QFETCH(QString, link);
        const TemporaryTree tree;
        tree.write("App.app/Contents/Info.plist",
                   xml("<dict><key>CFBundleExecutable</key><string>" + name.toUtf8() + "</string></dict>"));
        const QString place = "App.app/Contents/MacOS/run";
        QString program = tree.write(place, "program", mode_t(before));
        if (!link.isEmpty()) {
            program = tree.path("moved") + place.mid(link.size());
            QVERIFY(QFile::rename(tree.path(link), tree.path("moved")));
            tree.link(link, tree.path("moved"));
        }
        QCOMPARE(zel::ensureProgramIsExecutable(tree.path("App.app")).message, QString());
        QCOMPARE(TemporaryTree::mode(program), after);
    }
};

QTEST_GUILESS_MAIN(tst_BundleInfo)
#include "tst_BundleInfo.moc"
