#include "delta/bspatch2.h"
#include "generate/bsdiff2.h"

#include "publish/compactdelta.h"
#include "support/CapturedOutput.h"
#include "support/DeltaSupport.h"
#include "support/PlainScan.h"
#include "support/RepetitiveText.h"
#include "support/TemporaryTree.h"

#include <fcntl.h>
#include <QtTest>
#include <sys/stat.h>

namespace {

QByteArray toBytes(const std::vector<std::byte> &bytes)
{
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), qsizetype(bytes.size()));
}

std::optional<std::vector<std::byte>> diff(const QString &oldFile, const QString &newFile)
{
    return bsdiff2(oldFile.toStdString(), newFile.toStdString());
}

int diffTo(const QString &oldFile, const QString &newFile, const QString &patchFile)
{
    std::vector<QByteArray> arguments{"bsdiff", oldFile.toUtf8(), newFile.toUtf8(), patchFile.toUtf8()};
    std::vector<char *> argv;
    for (QByteArray &argument : arguments)
        argv.push_back(argument.data());
    return bsdiff(int(argv.size()), argv.data());
}

QByteArray plainDelta(const QByteArray &old, const QByteArray &fresh)
{
    const std::string_view oldBytes(old.constData(), std::size_t(old.size()));
    const std::string_view newBytes(fresh.constData(), std::size_t(fresh.size()));
    return QByteArray::fromStdString(
        zel::deltaOf(zel::PlainScan(oldBytes, newBytes).steps(), oldBytes, newBytes));
}

} // namespace

class tst_bsdiff2 : public QObject
{
    Q_OBJECT
private slots:
    void deltas_data()
    {
        QTest::addColumn<QByteArray>("old");
        QTest::addColumn<QByteArray>("fresh");

        const QByteArray random = randomBytes(20'000, 256, 1);
        const QByteArray twoSymbols = randomBytes(3000, 2, 2);
        const QByteArray period = QByteArray("\xFE\x01\xFF").repeated(700);
        QTest::newRow("old empty") << QByteArray() << random;
        QTest::newRow("identical") << random << random;
        QTest::newRow("a few edits") << random << edited(random, 5, 3);
        QTest::newRow("many edits") << random << edited(random, 300, 4);
        QTest::newRow("halves swapped") << random << random.last(9000) + random.first(11'000);
        QTest::newRow("doubled") << random << random + random;
        QTest::newRow("cut") << random << random.mid(5000, 3000);
        QTest::newRow("nothing in common") << random << randomBytes(5000, 256, 9);
        QTest::newRow("every eighth byte changed") << random << [&] {
            QByteArray bytes = random;
            for (qsizetype i = 0; i < bytes.size(); i += 8)
                bytes[i] = char(bytes[i] + 1);
            return bytes;
        }();
        QTest::newRow("two symbols") << twoSymbols << edited(twoSymbols, 30, 5);
        QTest::newRow("period") << period << edited(period, 20, 7);
        QTest::newRow("Fibonacci") << fibonacciBytes(2000) << edited(fibonacciBytes(2500), 10, 8);

        // What follows is repetitive enough, or long enough, for what is remembered and what is searched
        // ahead.
        const QByteArray zeros(12'000, '\0');
        const QByteArray block = randomBytes(700, 256, 10);
        const QByteArray longPeriod = block.repeated(40);
        QTest::newRow("zeros, one byte put in") << zeros << zeros.first(6000) + '\1' + zeros.first(6000);
        QTest::newRow("runs of zeros") << zeros + random + zeros.first(9000) + "end" + zeros.first(7000)
                                       << zeros.first(9000) + "end" + zeros + random + zeros.first(8000);
        QTest::newRow("long period, edited") << longPeriod << edited(longPeriod, 4, 11) + longPeriod.mid(99);
        QTest::newRow("long period, edited in both")
            << edited(longPeriod, 3, 12) << edited(longPeriod, 3, 13);
        QTest::newRow("one period, then another")
            << longPeriod + zeros << zeros + longPeriod.first(9000) + zeros.first(9000) + longPeriod;
        QByteArray nearCopy = random;
        for (const qsizetype at : {9000, 12'000, 17'000})
            nearCopy[at] = char(nearCopy[at] + 1);
        QTest::newRow("near copies") << random + nearCopy + block << nearCopy.first(500) + random + nearCopy;
        for (const int periodLength : {8, 16}) {
            const QByteArray run = randomBytes(periodLength, 256, 17).repeated(16'384 / periodLength);
            const QByteArray tail = randomBytes(12'000, 256, 18);
            QTest::addRow("a run's rest before a long match, period %d", periodLength)
                << run + tail << run + randomBytes(500, 256, 19) + run.last(3) + tail;
        }
        const QByteArray large = randomBytes(200'000, 20, 14);
        QTest::newRow("several chunks") << large << edited(large, 400, 15);
        QFile program(QCoreApplication::applicationFilePath());
        QVERIFY(program.open(QIODevice::ReadOnly));
        const QByteArray code = program.read(250'000);
        QTest::newRow("program") << code.first(150'000) << edited(code.mid(20'000), 100, 16);
    }

    /// Both generators give the bytes of the plain scan, and these rebuild the new file, compacted or not.
    void deltas()
    {
        QFETCH(QByteArray, old);
        QFETCH(QByteArray, fresh);
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", old);
        const QString newFile = tree.write("new", fresh);
        const auto delta = diff(oldFile, newFile);
        QVERIFY(delta);
        QVERIFY(toBytes(*delta) == plainDelta(old, fresh));

        QCOMPARE(diffTo(oldFile, newFile, tree.path("patch")), 0);
        QVERIFY(tree.read("patch") == toBytes(*delta));

        QCOMPARE(bspatch2(oldFile.toStdString(), tree.path("built").toStdString(), *delta), 0);
        QVERIFY(tree.read("built") == fresh);

        const auto compact = zel::compactDelta(view(old), view(fresh), view(toBytes(*delta)));
        QVERIFY(compact);
        QCOMPARE(bspatch2(oldFile.toStdString(), tree.path("built").toStdString(), *compact), 0);
        QVERIFY(tree.read("built") == fresh);
    }

    void everySmallPair()
    {
        const TemporaryTree tree;
        QList<QByteArray> texts;
        for (int bits = 1; bits < 1 << 6; ++bits)
            texts << QByteArray::number(bits, 2).mid(1);
        for (const QByteArray &old : texts) {
            const QString oldFile = tree.write("old", old);
            for (const QByteArray &fresh : texts) {
                const auto delta = diff(oldFile, tree.write("new", fresh));
                QVERIFY(delta);
                if (toBytes(*delta) != plainDelta(old, fresh))
                    QFAIL("from " + old + " to " + fresh);
            }
        }
    }

    /// With the short cuts as they are and taken early. More pairs: ZEL_PAIRS=1000000.
    void repetitivePairs()
    {
        bool isNumber = false;
        const int wanted = qEnvironmentVariableIntValue("ZEL_PAIRS", &isNumber);
        for (unsigned seed = 0, count = isNumber ? unsigned(wanted) : 3000; seed < count; ++seed) {
            std::mt19937 random(seed);
            const auto pick = [&random](std::uint32_t most) { return std::uint32_t(random()) % (most + 1); };
            const std::string old = zel::repetitiveText(pick);
            const std::string fresh = zel::repetitiveText(pick, old);
            zel::PlainScan plain(old, fresh);
            const auto expected = plain.steps();
            for (const zel::ShortCuts &shortCuts : {zel::ShortCuts(), zel::eagerShortCuts}) {
                if (zel::realSteps(old, plain.suffixes(), fresh, shortCuts) != expected)
                    QFAIL(("pair " + std::to_string(seed)).c_str());
            }
        }
    }

    void knownDeltas_data()
    {
        QTest::addColumn<QByteArray>("old");
        QTest::addColumn<QByteArray>("fresh");
        QTest::addColumn<QByteArray>("delta");

        const QByteArray zeros(4, '\0');
        QTest::newRow("new empty") << QByteArray("ab") << QByteArray() << "BSDIFN40" + QByteArray(24, '\0');
        QTest::newRow("old empty") << QByteArray() << QByteArray("ab")
                                   << handMadeDelta(2, {0, 2, 0}, "", "ab");
        QTest::newRow("identical") << QByteArray("abcd") << QByteArray("abcd")
                                   << handMadeDelta(4, {4, 0, -4}, zeros, "");
        QTest::newRow("identical, each end a beginning")
            << QByteArray("aaaa") << QByteArray("aaaa") << handMadeDelta(4, {4, 0, -1}, zeros, "");
    }

    void knownDeltas()
    {
        QFETCH(QByteArray, old);
        QFETCH(QByteArray, fresh);
        QFETCH(QByteArray, delta);
        const TemporaryTree tree;
        const auto made = diff(tree.write("old", old), tree.write("new", fresh));
        QVERIFY(made);
        QCOMPARE(toBytes(*made), delta);
    }

    void usage()
    {
        char name[] = "differ";
        char *arguments[] = {name, name, name, name, name};
        CapturedStream errors(stderr);
        QCOMPARE(bsdiff(3, arguments), -1);
        QCOMPARE(bsdiff(5, arguments), -1);
        const QByteArray line("tst_generate_bsdiff2: usage: differ oldfile newfile patchfile\n\n");
        QCOMPARE(errors.text(), line + line);
    }

    void failures_data()
    {
        QTest::addColumn<QString>("old");
        QTest::addColumn<QString>("fresh");
        QTest::addColumn<QString>("patch");
        QTest::addColumn<QByteArray>("message");

        const auto row = [](const char *name, const char *old, const char *fresh, const char *patch,
                            const QByteArray &message) {
            QTest::newRow(name) << old << fresh << patch << message;
        };
        row("old missing, then the new one", "no", ".", "patch",
            "old file error: no: No such file or directory");
        row("new missing", "file", "no", "patch", "new file error: no: No such file or directory");
        row("old is a folder", ".", "file", "patch", "old file error: .: Is a directory");
        row("old of 2 GiB", "large", "file", "patch", "old file error: large: File too large");
        row("new of 2 GiB", "file", "large", "patch", "new file error: large: File too large");
        row("patch folder missing", "file", "file", "no/patch", "no/patch: No such file or directory");
        row("disk full in the control block", "file", "file", "/dev/full", "fwrite");
        row("disk full without control block", "file", "empty", "/dev/full",
            "fwrite: No space left on device");
        row("patch without positions", "file", "file", "pipe", "ftello: Illegal seek");
    }

    void failures()
    {
        QFETCH(QString, old);
        QFETCH(QString, fresh);
        QFETCH(QString, patch);
        QFETCH(QByteArray, message);
        const TemporaryTree tree;
        tree.write("file", "abcdef");
        tree.write("empty", "");
        QVERIFY(QFile::resize(tree.write("large", ""), qint64(1) << 31));
        const QByteArray pipe = tree.path("pipe").toUtf8();
        QCOMPARE(::mkfifo(pipe, 0600), 0);
        const int held = ::open(pipe, O_RDWR | O_CLOEXEC); // lets the writer in
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(tree.path()));

        CapturedStream errors(stderr);
        const int result = diffTo(old, fresh, patch);
        const bool made = !patch.startsWith('/') && patch != "pipe" && QFile::exists(patch);
        QByteArray expected = "tst_generate_bsdiff2: " + message + '\n';
        if (patch == "patch") { // what has nothing to do with the patch file fails alike without one
            expected += expected;
            QVERIFY(!diff(old, fresh));
        }
        QCOMPARE(errors.text(), expected);
        QCOMPARE(result, -1);
        QVERIFY(!made);
        QVERIFY(QDir::setCurrent(before));
        ::close(held);
    }
};

QTEST_GUILESS_MAIN(tst_bsdiff2)
#include "tst_bsdiff2.moc"
