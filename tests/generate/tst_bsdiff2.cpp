#include "delta/bspatch2.h"
#include "generate/bsdiff2.h"

#include "base/FileDescriptor.h"
#include "generate/compactdelta.h"
#include "support/CapturedOutput.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/PlainScan.h"
#include "support/RepetitiveText.h"
#include "support/TemporaryTree.h"

#include <fcntl.h>

namespace {

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
    // Both generators give the bytes of the plain scan, and these rebuild the new file, compacted or not.
    void deltas()
    {
        const QByteArray random = randomBytes(20'000, 256, 1);
        QByteArray eighths = random;
        for (qsizetype i = 0; i < eighths.size(); i += 8)
            eighths[i] = char(eighths[i] + 1);
        const QByteArray zeros(12'000, '\0');
        const QByteArray block = randomBytes(700, 256, 10);
        const QByteArray longPeriod = block.repeated(40);
        QByteArray nearCopy = random;
        for (const qsizetype at : {9000, 12'000, 17'000})
            nearCopy[at] = char(nearCopy[at] + 1);
        const QByteArray eights = randomBytes(8, 256, 17).repeated(2048);
        const QByteArray middle = randomBytes(500, 256, 19);
        const QByteArray tail = randomBytes(12'000, 256, 18);
        const QByteArray large = randomBytes(200'000, 20, 14);
        QFile program(QCoreApplication::applicationFilePath());
        QVERIFY(program.open(QIODevice::ReadOnly));
        const QByteArray code = program.read(250'000);
        const std::tuple<const char *, QByteArray, QByteArray> cases[] = {
            {"old empty", "", random},
            {"identical", random, random},
            {"many edits", random, edited(random, 300, 4)},
            {"halves swapped", random, random.last(9000) + random.first(11'000)},
            {"every eighth byte changed", random, eighths},
            {"Fibonacci", fibonacciBytes(2000), edited(fibonacciBytes(2500), 10, 8)},
            // What follows is repetitive enough, or long enough, for what is remembered and what is searched
            // ahead.
            {"runs of zeros", zeros + random + zeros.first(9000) + "end" + zeros.first(7000),
             zeros.first(9000) + "end" + zeros + random + zeros.first(8000)},
            {"one period, then another", longPeriod + zeros,
             zeros + longPeriod.first(9000) + zeros.first(9000) + longPeriod},
            {"near copies", random + nearCopy + block, nearCopy.first(500) + random + nearCopy},
            {"a run's rest before a long match", eights + tail, eights + middle + eights.last(3) + tail},
            {"several chunks", large, edited(large, 400, 15)},
            {"program", code.first(150'000), edited(code.mid(20'000), 100, 16)},
        };
        for (const auto &[name, old, fresh] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const QString oldFile = tree.write("old", old);
            const QString newFile = tree.write("new", fresh);
            const auto delta = diff(oldFile, newFile);
            QVERIFY(delta);
            QVERIFY(toBytes(*delta) == plainDelta(old, fresh));
            QCOMPARE(diffTo(oldFile, newFile, tree.path("patch")), 0);
            QVERIFY(tree.read("patch") == toBytes(*delta));
            const auto compact = zel::compactDelta(view(old), view(fresh), view(toBytes(*delta)));
            for (const auto &one : {delta, compact}) {
                QVERIFY(one);
                QCOMPARE(bspatch2(oldFile.toStdString(), tree.path("built").toStdString(), *one), 0);
                QVERIFY(tree.read("built") == fresh);
            }
        }
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
                QVERIFY2(toBytes(*delta) == plainDelta(old, fresh),
                         ("from " + old + " to " + fresh).constData());
            }
        }
    }

    // With the short cuts as they are and taken early. More pairs: ZEL_PAIRS=1000000.
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
            for (const zel::ShortCuts &shortCuts : {zel::ShortCuts(), zel::EagerShortCuts}) {
                const Case current("pair " + QString::number(seed));
                QVERIFY(zel::realSteps(old, plain.suffixes(), fresh, shortCuts) == expected);
            }
        }
    }

    void knownDeltas()
    {
        const QByteArray zeros(4, '\0');
        // Each end of the last is a beginning of it, too.
        const std::tuple<QByteArray, QByteArray, QByteArray> cases[] = {
            {"ab", "", "BSDIFN40" + QByteArray(24, '\0')},
            {"", "ab", handMadeDelta(2, {0, 2, 0}, "", "ab")},
            {"abcd", "abcd", handMadeDelta(4, {4, 0, -4}, zeros, "")},
            {"aaaa", "aaaa", handMadeDelta(4, {4, 0, -1}, zeros, "")},
        };
        for (const auto &[old, fresh, delta] : cases) {
            const TemporaryTree tree;
            QCOMPARE(toBytes(diff(tree.write("old", old), tree.write("new", fresh)).value()), delta);
        }
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

    void failures()
    {
        const std::tuple<const char *, QString, QString, QString, QByteArray> cases[] = {
            {"old missing, then the new one", "no", ".", "patch",
             "old file error: no: No such file or directory"},
            {"new missing", "file", "no", "patch", "new file error: no: No such file or directory"},
            {"old is a folder", ".", "file", "patch", "old file error: .: Is a directory"},
            {"old of 2 GiB", "large", "file", "patch", "old file error: large: File too large"},
            {"new of 2 GiB", "file", "large", "patch", "new file error: large: File too large"},
            {"patch folder missing", "file", "file", "no/patch", "no/patch: No such file or directory"},
            {"disk full in the control block", "file", "file", "/dev/full", "fwrite"},
            {"disk full without control block", "file", "empty", "/dev/full",
             "fwrite: No space left on device"},
            {"patch without positions", "file", "file", "pipe", "ftello: Illegal seek"},
        };
        const TemporaryTree tree;
        tree.write("file", "abcdef");
        tree.write("empty", "");
        QVERIFY(QFile::resize(tree.write("large", ""), qint64(1) << 31));
        const QByteArray pipe = tree.path("pipe").toUtf8();
        QCOMPARE(::mkfifo(pipe, 0600), 0);
        const zel::FileDescriptor held(::open(pipe, O_RDWR | O_CLOEXEC)); // lets the writer in
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(tree.path()));
        for (const auto &[name, old, fresh, patch, message] : cases) {
            const Case current(name);
            CapturedStream errors(stderr);
            const int result = diffTo(old, fresh, patch);
            QByteArray expected = "tst_generate_bsdiff2: " + message + '\n';
            if (patch == "patch") { // what has nothing to do with the patch file fails alike without one
                expected += expected;
                QVERIFY(!diff(old, fresh));
            }
            QCOMPARE(errors.text(), expected);
            QCOMPARE(result, -1);
            QVERIFY(!QFile::exists("patch"));
        }
        QVERIFY(QDir::setCurrent(before));
    }
};

QTEST_GUILESS_MAIN(tst_bsdiff2)
#include "tst_bsdiff2.moc"
