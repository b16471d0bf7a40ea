#include "delta/bspatch2.h"
#include "delta/readfile.h"

#include "support/CapturedOutput.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/TemporaryTree.h"

#include <cstdlib>
#include <fcntl.h>
#include <limits>

namespace {

constexpr qint64 Most = std::numeric_limits<qint64>::max();

struct Outcome {
    int result;
    QByteArray output;
    QByteArray errors;
};

Outcome apply(const QString &oldPath, const QString &newPath, const QByteArray &delta)
{
    CapturedStream output(stdout);
    CapturedStream errors(stderr);
    const int result = bspatch2(oldPath.toStdString(), newPath.toStdString(), std::as_bytes(view(delta)));
    return {result, output.text(), errors.text()};
}

QByteArray header(qint64 controlLength, qint64 diffLength, qint64 newSize)
{
    return "BSDIFN40" + deltaIntegers({controlLength, diffLength, newSize});
}

// Every part of a delta at work: "abcdef" becomes "bcXYefZa".
QByteArray sampleDelta()
{
    return handMadeDelta(8, {2, 2, 2, 2, 1, -6, 1, 0, 0}, QByteArray("\1\1\0\0\0", 5), "XYZ");
}

} // namespace

class tst_bspatch2 : public QObject
{
    Q_OBJECT
private slots:
    void applied()
    {
        const std::tuple<const char *, QByteArray, QByteArray, QByteArray> cases[] = {
            {"adds, inserts, seeks", "abcdef", sampleDelta(), "bcXYefZa"},
            {"addition wraps", "\xF0", handMadeDelta(1, {1, 0, 0}, "\x20", ""), "\x10"},
            {"empty old file", "", handMadeDelta(3, {3, 0, 0}, "new", ""), "new"},
            {"from before the old file to behind it", "ab",
             handMadeDelta(6, {0, 0, -2, 6, 0, 0}, QByteArray("xy\0\0zw", 6), ""), "xyabzw"},
            {"as far before the old file as can be", "ab",
             handMadeDelta(1, {0, 0, -Most, 0, 0, -1, 1, 0, 0}, "x", ""), "x"},
            {"as far behind the old file as can be", "ab",
             handMadeDelta(1, {0, 0, Most - 1, 1, 0, 0}, "x", ""), "x"},
            {"new size 0 reads no triple", "ab", header(0, 0, 0) + "rubbish", ""},
            {"nothing behind the header", "ab", header(0, 0, 0), ""},
            {"negative zeros", "ab", "BSDIFN40" + QByteArray("\0\0\0\0\0\0\0\x80", 8).repeated(3), ""},
            {"other magic", "abcdef", sampleDelta().replace(0, 8, "whatever"), "bcXYefZa"},
            {"diff block runs on into the extra block", "", handMadeDelta(4, {3, 1, 0}, "x", "yz"), "xyzy"},
            {"control block runs on into the others", "", header(8, 8, 2) + deltaIntegers({1, 1, 5}), "\1\5"},
            {"behind the control data the last value stands", "", header(0, 0, 4) + deltaIntegers({1}),
             QByteArray("\1\1\0\0", 4)},
            {"a value cut short keeps bytes of the last one", "",
             header(0, 0, 0x100 + 0x105) + QByteArray(30 * 24, '\0') + deltaIntegers({0x100}) + '\5',
             QByteArray(0x100 + 0x105, '\0')},
        };
        for (const auto &[name, old, delta, expected] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const Outcome outcome = apply(tree.write("old", old), tree.path("new"), delta);
            QCOMPARE(outcome.errors, QByteArray());
            QCOMPARE(outcome.result, 0);
            QCOMPARE(tree.read("new"), expected);
        }
    }

    void refused()
    {
        const QByteArray corrupt("Corrupt patch\n");
        const QByteArray wrapped("fseeko(patch, -9223372036854775777): Invalid argument");
        const std::tuple<const char *, QByteArray, QByteArray> cases[] = {
            {"negative control length", header(-1, 0, 0), corrupt},
            {"negative diff length", header(0, -1, 0), corrupt},
            {"negative new size", header(0, 0, -1), corrupt},
            {"diff block beyond the end", header(1, 0, 0), "fseeko(patch, 33): Invalid argument"},
            {"extra block beyond the end", header(1, 2, 0) + "x", "fseeko(patch, 35): Invalid argument"},
            {"control length beyond 64 bits", header(Most, Most, 0), wrapped},
            {"diff length beyond 64 bits", header(0, Most, 0), wrapped},
            {"new size without memory", header(0, 0, Most),
             "Failed to allocate memory for new: Cannot allocate memory"},
            {"huge new size, nothing to fill it", header(0, 0, qint64(1) << 30), corrupt},
            {"add past the new size", handMadeDelta(2, {3, 0, 0}, "xyz", ""), corrupt},
            {"insert past the new size", handMadeDelta(2, {1, 2, 0}, "x", "yz"), corrupt},
            {"add past 64 bits", handMadeDelta(2, {1, 0, 0, Most, 0, 0}, "xy", ""), corrupt},
            {"insert past 64 bits", handMadeDelta(2, {1, Most, 0}, "x", "y"), corrupt},
            {"negative add", handMadeDelta(2, {-1, 0, 0}, "xy", "zw"), corrupt},
            {"negative insert", handMadeDelta(2, {1, -1, 0}, "xy", "zw"), corrupt},
            {"diff bytes run out", handMadeDelta(3, {3, 0, 0}, "xy", ""), corrupt},
            {"extra bytes run out", handMadeDelta(3, {0, 3, 0}, "", "xy"), corrupt},
            {"old position above 64 bits", handMadeDelta(2, {0, 0, Most, 1, 0, 0, 1, 0, 0}, "xy", ""),
             corrupt},
            {"old position below 64 bits", handMadeDelta(2, {0, 0, -Most, 0, 0, -Most, 2, 0, 0}, "xy", ""),
             corrupt},
            {"no control data", header(0, 0, 1), corrupt},
            {"control data ends with zero", handMadeDelta(2, {1, 0, 0}, "xy", ""), corrupt},
        };
        for (const auto &[name, delta, message] : cases) {
            const Case current(name);
            const TemporaryTree tree;
            const Outcome outcome = apply(tree.write("old", "abcdef"), tree.write("new", "before"), delta);
            QCOMPARE(outcome.errors, "tst_delta_bspatch2: " + message + '\n');
            QCOMPARE(outcome.output, QByteArray());
            QCOMPARE(outcome.result, -1);
            QCOMPARE(tree.read("new"), QByteArray("before"));
        }
    }

    void filesThatFail()
    {
        const QByteArray large = handMadeDelta(100'000, {100'000, 0, 0}, QByteArray(100'000, 'x'), "");
        const std::tuple<const char *, QString, QString, QByteArray, QByteArray> cases[] = {
            {"header before the old file", "missing", "new", header(-1, 0, 0), "Corrupt patch\n"},
            {"positions before the old file", "missing", "new", header(1, 0, 0),
             "fseeko(patch, 33): Invalid argument"},
            {"old file even for new size 0", "missing", "new", header(0, 0, 0),
             "old file: missing: No such file or directory"},
            {"old file before the memory", "missing", "new", header(0, 0, Most),
             "old file: missing: No such file or directory"},
            {"new folder missing", "old", "no/new", sampleDelta(),
             "failed to write new file: no/new: No such file or directory"},
            {"disk full at the end", "old", "/dev/full", sampleDelta(),
             "failed to close new file: /dev/full: No space left on device"},
            {"disk full on the way", "old", "/dev/full", large,
             "failed to write to new file: /dev/full: No space left on device"},
        };
        const TemporaryTree tree;
        tree.write("old", "abcdef");
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(tree.path()));
        for (const auto &[name, oldFile, newFile, delta, message] : cases) {
            const Case current(name);
            const Outcome outcome = apply(oldFile, newFile, delta);
            QCOMPARE(outcome.errors, "tst_delta_bspatch2: " + message + '\n');
            QCOMPARE(outcome.result, -1);
            QVERIFY(!QFile::exists(tree.path("new")));
        }
        QVERIFY(QDir::setCurrent(before));
    }

    void cutAtEveryLength()
    {
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", "abcdef");
        const QString newFile = tree.write("new", "before");
        for (qsizetype length = 0; length < sampleDelta().size(); ++length) {
            const auto [result, output, errors] = apply(oldFile, newFile, sampleDelta().first(length));
            QCOMPARE(result, -1);
            QCOMPARE(output, QByteArray(length < 32 ? "header error\n" : ""));
            QVERIFY2(length >= 32 || errors == "tst_delta_bspatch2: Corrupt patch\n\n", errors.constData());
            QCOMPARE(errors.count("tst_delta_bspatch2: "), 1);
            QCOMPARE(tree.read("new"), QByteArray("before"));
        }
    }

    // Whatever the bytes are, a delta is applied or refused.
    void damagedDeltas()
    {
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", "abcdef");
        std::mt19937 random(5);
        for (int round = 0; round < 1000; ++round) {
            QByteArray delta = sampleDelta();
            const QString newFile = tree.write("new", "before");
            for (unsigned i = random() % 3 + 1; i > 0; --i) {
                const qsizetype at = 8 + random() % unsigned(delta.size() - 8);
                if (at < 26 || at >= 32) // large sizes take long in sanitized builds
                    delta[at] = char(random() % 2 ? random() % 8 : random());
            }
            const int result = apply(oldFile, newFile, delta).result;
            QVERIFY(result == 0 || (result == -1 && tree.read("new") == "before"));
        }
    }

    void inPlaceKeepsTheMode()
    {
        const TemporaryTree tree;
        const QString file = tree.write("file", "abcdef", 0640);
        QCOMPARE(apply(file, file, handMadeDelta(2, {0, 2, 0}, "", "XY")).result, 0);
        QCOMPARE(tree.read("file"), QByteArray("XY"));
        QCOMPARE(TemporaryTree::mode(file), 0640);
    }

    void readfileReadsAll()
    {
        const TemporaryTree tree;
        for (const QByteArray &contents :
             {QByteArray(), QByteArray("a\0b", 3), randomBytes(200'000, 256, 1)}) {
            const QByteArray path = tree.write("file", contents).toUtf8();
            std::int64_t size = -1;
            unsigned char *bytes = readfile(path.constData(), &size);
            QVERIFY(bytes);
            QCOMPARE(QByteArray(reinterpret_cast<char *>(bytes), size), contents);
            bytes[size] = 'x'; // there is a byte more than the file has
            std::free(bytes);
            std::free(readfile(path.constData(), nullptr));
        }
    }

    void readfileRefuses()
    {
        const TemporaryTree tree;
        std::int64_t size = -7;
        CapturedStream errors(stderr);
        QCOMPARE(readfile(tree.path("missing").toUtf8(), &size), nullptr);
        QCOMPARE(errno, ENOENT);
        QCOMPARE(size, -7);

        const QByteArray pipe = tree.path("pipe").toUtf8();
        QCOMPARE(::mkfifo(pipe, 0600), 0);
        const int held = ::open(pipe, O_RDWR | O_CLOEXEC); // lets the reader in
        QCOMPARE(readfile(pipe, &size), nullptr);
        QCOMPARE(errno, ESPIPE);
        ::close(held);
        QCOMPARE(errors.text(), QByteArray());
    }
};

QTEST_GUILESS_MAIN(tst_bspatch2)
#include "tst_bspatch2.moc"
