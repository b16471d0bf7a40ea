#include "platform/BundleInfo.h"
#include "platform/PropertyList.h"
#include "support/Case.h"
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

const QByteArray PairMarker = "\xd1"; // a dictionary of one pair

// A dictionary whose one value is the object with the number 2.
QByteArrayList topWith(const QByteArrayList &objects)
{
    return QByteArrayList{PairMarker + reference(1) + reference(2), "Qk"}
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
    void values()
    {
        const auto of = [](const QByteArray &element) {
            return xml("<dict><key>k</key>" + element + "</dict>");
        };
        const QByteArrayList objects{"\xa3" + reference(1) + reference(1) + reference(3), "\x11\x1b\x59"};
        const std::tuple<const char *, QByteArray, QVariant> cases[] = {
            {"string", of("<string>a &lt;ö</string>"), "a <ö"},
            {"empty string", of("<string></string>"), ""},
            {"integer", of("<integer>9007199254740993</integer>"), qint64(9007199254740993)},
            {"negative", of("<integer>-5</integer>"), qint64(-5)},
            {"real", of("<real>7.25</real>"), 7.25},
            {"booleans", of("<array><true/><false/></array>"), QVariantList{true, false}},
            {"data", of("<data>AAEC</data>"), QByteArray("\0\1\2", 3)},
            {"date", of("<date>2001-01-02T00:00:01Z</date>"), QDateTime({2001, 1, 2}, {0, 0, 1}, Qt::UTC)},
            {"dictionary", of("<dict><key>k</key><true/></dict>"), QVariantMap{{"k", true}}},
            {"binary", binary(topWith(objects)), QVariantList{"k", "k", qint64(7001)}},
        };
        for (const auto &[name, bytes, expected] : cases) {
            const Case current(name);
            const auto list = zel::readPropertyList(bytes);
            QVERIFY(list);
            QCOMPARE(list->value("k"), expected);
            QCOMPARE(list->value("k").typeId(), expected.typeId());
        }
    }

    void refusedLists()
    {
        const std::pair<const char *, QByteArray> cases[] = {
            {"no bytes", ""},
            {"text", "CFBundleVersion = 1;"},
            {"array at the top", xml("<array/>")},
            {"nested to exhaust the stack",
             xml("<dict><key>k</key>" + QByteArray("<array>").repeated(500'000)
                 + QByteArray("</array>").repeated(500'000) + "</dict>")},
            {"keys to be compared for minutes",
             xml("<dict>" + QByteArray("<key>k</key><true/>").repeated(50'000) + "</dict>")},
            {"references to be replaced for minutes",
             xml("<dict><key>k</key><string>" + QByteArray("&lt;").repeated(1 << 19) + "</string></dict>")},
            {"binary, nested to exhaust the stack", nestedBinary(60'000)},
            {"binary, doubling at each level", nestedBinary(30, 2)},
            {"binary, cyclic", binary(topWith({"\xa1" + reference(3), "\xa1" + reference(2)}))},
            {"binary, one long string very often", repeatingBinary()},
            {"binary, reference to no object", binary(topWith({}))},
            {"binary, NUL in a key",
             binary({PairMarker + reference(1) + reference(1), QByteArray("\x62\0a\0\0", 5)})},
        };
        for (const auto &[name, bytes] : cases) {
            const Case current(name);
            QVERIFY(!zel::readPropertyList(bytes));
        }
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
        const QByteArray text = QByteArray("\x5f\x10\x11", 3) + "12345678901234567";
        const QByteArrayList objects{"\xa2" + reference(3) + reference(4), "Qa", text};
        const QByteArrayList lists{build("<string>7001</string>"), binary(topWith(objects))};
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

    void builds()
    {
        const std::tuple<const char *, QString, QByteArray, qint64> cases[] = {
            {"text", "Contents/Info.plist", build("<string>7001</string>"), 7001},
            {"number", "Contents/Info.plist", build("<integer>7001</integer>"), 7001},
            {"no Contents", "Info.plist", build("<string>70.1</string>"), 70},
            {"no key", "Info.plist", xml("<dict/>"), 0},
            {"array for a value", "Info.plist", build("<array/>"), 0},
            {"garbage", "Contents/Info.plist", "garbage", 0},
            {"too large", "Info.plist", build("<string>1</string>") + QByteArray(4 << 20, ' '), 0},
            {"no plist", "", "", 0},
        };
        for (const auto &[name, file, bytes, expected] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.directory("App.app");
            if (!file.isEmpty())
                tree.write("App.app/" + file, bytes);
            const QString link = tree.link("Link.app", "App.app");
            for (const QString &bundle : {tree.path("App.app"), link})
                QCOMPARE(zel::bundleBuild(bundle), std::optional(expected));
        }
    }

    void innerPlistComesFirst()
    {
        const TemporaryTree tree;
        tree.write("App.app/Info.plist", build("<string>1</string>"));
        tree.write("App.app/Contents/Info.plist", build("<string>2</string>"));
        QCOMPARE(zel::bundleBuild(tree.path("App.app")), std::optional<qint64>(2));
        for (const QString &none : {tree.path("missing.app"), tree.write("file.app", "text"), QString()})
            QVERIFY2(!zel::bundleBuild(none), qPrintable(none));
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

    void programs()
    {
        const std::tuple<const char *, QString, int, int, QString> cases[] = {
            {"not executable", "run", 0644, 0755, ""},
            {"private", "run", 0600, 0700, ""},
            {"executable", "run", 0711, 0711, ""},
            {"for others only", "run", 0655, 0755, ""},
            {"another one named", "other", 0644, 0644, ""},
            {"none named", "", 0644, 0644, ""},
            {"path", "../MacOS/run", 0644, 0644, ""},
            {"link", "run", 0644, 0644, "App.app/Contents/MacOS/run"},
            {"behind a link", "run", 0644, 0644, "App.app/Contents/MacOS"},
            {"bundle is a link", "run", 0644, 0644, "App.app"},
        };
        for (const auto &[name, named, before, after, link] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            tree.write(
                "App.app/Contents/Info.plist",
                xml("<dict><key>CFBundleExecutable</key><string>" + named.toUtf8() + "</string></dict>"));
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
    }
};

QTEST_GUILESS_MAIN(tst_BundleInfo)
#include "tst_BundleInfo.moc"
