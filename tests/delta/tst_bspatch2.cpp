#include "delta/bspatch2.h"
#include "delta/readfile.h"

#include "support/CapturedOutput.h"
#include "support/DeltaSupport.h"
#include "support/TemporaryTree.h"

#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <QtTest>

namespace {

constexpr qint64 most = std::numeric_limits<qint64>::max();

int apply(const QString &oldPath, const QString &newPath, const QByteArray &delta)
{
    return bspatch2(oldPath.toStdString(), newPath.toStdString(),
                    std::as_bytes(std::span(delta.constData(), std::size_t(delta.size()))));
}

QByteArray header(qint64 controlLength, qint64 diffLength, qint64 newSize)
{
    return "BSDIFN40" + deltaIntegers({controlLength, diffLength, newSize});
}

/// Every part of a delta at work: "abcdef" becomes "bcXYefZa".
QByteArray sampleDelta()
{
    return handMadeDelta(8, {2, 2, 2, 2, 1, -6, 1, 0, 0}, QByteArray("\1\1\0\0\0", 5), "XYZ");
}

} // namespace

class tst_bspatch2 : public QObject
{
    Q_OBJECT
private slots:
    void applied_data()
    {
        QTest::addColumn<QByteArray>("old");
        QTest::addColumn<QByteArray>("delta");
        QTest::addColumn<QByteArray>("expected");

        QTest::newRow("adds, inserts, seeks")
            << QByteArray("abcdef") << sampleDelta() << QByteArray("bcXYefZa");
        QTest::newRow("addition wraps")
            << QByteArray("\xF0") << handMadeDelta(1, {1, 0, 0}, "\x20", "") << QByteArray("\x10");
        QTest::newRow("empty old file")
            << QByteArray() << handMadeDelta(3, {3, 0, 0}, "new", "") << QByteArray("new");
        QTest::newRow("from before the old file to behind it")
            << QByteArray("ab") << handMadeDelta(6, {0, 0, -2, 6, 0, 0}, QByteArray("xy\0\0zw", 6), "")
            << QByteArray("xyabzw");
        QTest::newRow("as far before the old file as can be")
            << QByteArray("ab") << handMadeDelta(1, {0, 0, -most, 0, 0, -1, 1, 0, 0}, "x", "")
            << QByteArray("x");
        QTest::newRow("as far behind the old file as can be")
            << QByteArray("ab") << handMadeDelta(1, {0, 0, most - 1, 1, 0, 0}, "x", "") << QByteArray("x");
        QTest::newRow("new size 0 reads no triple")
            << QByteArray("ab") << header(0, 0, 0) + "rubbish" << QByteArray();
        QTest::newRow("nothing behind the header") << QByteArray("ab") << header(0, 0, 0) << QByteArray();
        QTest::newRow("negative zeros")
            << QByteArray("ab") << "BSDIFN40" + QByteArray("\0\0\0\0\0\0\0\x80", 8).repeated(3)
            << QByteArray();
        QTest::newRow("other magic") << QByteArray("abcdef") << sampleDelta().replace(0, 8, "whatever")
                                     << QByteArray("bcXYefZa");
        QTest::newRow("diff block runs on into the extra block")
            << QByteArray() << handMadeDelta(4, {3, 1, 0}, "x", "yz") << QByteArray("xyzy");
        QTest::newRow("control block runs on into the others")
            << QByteArray() << header(8, 8, 2) + deltaIntegers({1, 1, 5}) << QByteArray("\1\5");
        QTest::newRow("behind the control data the last value stands")
            << QByteArray() << header(0, 0, 4) + deltaIntegers({1}) << QByteArray("\1\1\0\0", 4);
        QTest::newRow("a value cut short keeps bytes of the last one")
            << QByteArray()
            << header(0, 0, 0x100 + 0x105) + QByteArray(30 * 24, '\0') + deltaIntegers({0x100}) + '\5'
            << QByteArray(0x100 + 0x105, '\0');
    }

    void applied()
    {
        QFETCH(QByteArray, old);
        QFETCH(QByteArray, delta);
        QFETCH(QByteArray, expected);
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", old);
        CapturedStream errors(stderr);
        const int result = apply(oldFile, tree.path("new"), delta);
        QCOMPARE(errors.text(), QByteArray());
        QCOMPARE(result, 0);
        QCOMPARE(tree.read("new"), expected);
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("delta");
        QTest::addColumn<QByteArray>("message");

        const QByteArray corrupt("Corrupt patch\n");
        const QByteArray wrapped("fseeko(patch, -9223372036854775777): Invalid argument");
        QTest::newRow("negative control length") << header(-1, 0, 0) << corrupt;
        QTest::newRow("negative diff length") << header(0, -1, 0) << corrupt;
        QTest::newRow("negative new size") << header(0, 0, -1) << corrupt;
        QTest::newRow("diff block beyond the end")
            << header(1, 0, 0) << QByteArray("fseeko(patch, 33): Invalid argument");
        QTest::newRow("extra block beyond the end")
            << header(1, 2, 0) + "x" << QByteArray("fseeko(patch, 35): Invalid argument");
        QTest::newRow("control length beyond 64 bits") << header(most, most, 0) << wrapped;
        QTest::newRow("diff length beyond 64 bits") << header(0, most, 0) << wrapped;
        QTest::newRow("new size without memory")
            << header(0, 0, most) << QByteArray("Failed to allocate memory for new: Cannot allocate memory");
        QTest::newRow("huge new size, nothing to fill it") << header(0, 0, qint64(1) << 30) << corrupt;
        QTest::newRow("add past the new size") << handMadeDelta(2, {3, 0, 0}, "xyz", "") << corrupt;
        QTest::newRow("insert past the new size") << handMadeDelta(2, {1, 2, 0}, "x", "yz") << corrupt;
        QTest::newRow("add past 64 bits") << handMadeDelta(2, {1, 0, 0, most, 0, 0}, "xy", "") << corrupt;
        QTest::newRow("insert past 64 bits") << handMadeDelta(2, {1, most, 0}, "x", "y") << corrupt;
        QTest::newRow("negative add") << handMadeDelta(2, {-1, 0, 0}, "xy", "zw") << corrupt;
        QTest::newRow("negative insert") << handMadeDelta(2, {1, -1, 0}, "xy", "zw") << corrupt;
        QTest::newRow("diff bytes run out") << handMadeDelta(3, {3, 0, 0}, "xy", "") << corrupt;
        QTest::newRow("extra bytes run out") << handMadeDelta(3, {0, 3, 0}, "", "xy") << corrupt;
        QTest::newRow("old position above 64 bits")
            << handMadeDelta(2, {0, 0, most, 1, 0, 0, 1, 0, 0}, "xy", "") << corrupt;
        QTest::newRow("old position below 64 bits")
            << handMadeDelta(2, {0, 0, -most, 0, 0, -most, 2, 0, 0}, "xy", "") << corrupt;
        QTest::newRow("no control data") << header(0, 0, 1) << corrupt;
        QTest::newRow("control data ends with zero") << handMadeDelta(2, {1, 0, 0}, "xy", "") << corrupt;
    }

    void refused()
    {
        QFETCH(QByteArray, delta);
        QFETCH(QByteArray, message);
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", "abcdef");
        const QString newFile = tree.write("new", "before");
        CapturedStream output(stdout);
        CapturedStream errors(stderr);
        const int result = apply(oldFile, newFile, delta);
        const QByteArray shown = output.text(); // first, so that this test's own failures are seen
        QCOMPARE(errors.text(), "tst_delta_bspatch2: " + message + '\n');
        QCOMPARE(shown, QByteArray());
        QCOMPARE(result, -1);
        QCOMPARE(tree.read("new"), QByteArray("before"));
    }

    void filesThatFail_data()
    {
        QTest::addColumn<QString>("oldFile");
        QTest::addColumn<QString>("newFile");
        QTest::addColumn<QByteArray>("delta");
        QTest::addColumn<QByteArray>("message");

        const QByteArray large = handMadeDelta(100'000, {100'000, 0, 0}, QByteArray(100'000, 'x'), "");
        QTest::newRow("header before the old file")
            << "missing"
            << "new" << header(-1, 0, 0) << QByteArray("Corrupt patch\n");
        QTest::newRow("positions before the old file")
            << "missing"
            << "new" << header(1, 0, 0) << QByteArray("fseeko(patch, 33): Invalid argument");
        QTest::newRow("old file even for new size 0")
            << "missing"
            << "new" << header(0, 0, 0) << QByteArray("old file: missing: No such file or directory");
        QTest::newRow("old file before the memory")
            << "missing"
            << "new" << header(0, 0, most) << QByteArray("old file: missing: No such file or directory");
        QTest::newRow("new folder missing")
            << "old"
            << "no/new" << sampleDelta()
            << QByteArray("failed to write new file: no/new: No such file or directory");
        QTest::newRow("disk full at the end")
            << "old"
            << "/dev/full" << sampleDelta()
            << QByteArray("failed to close new file: /dev/full: No space left on device");
        QTest::newRow("disk full on the way")
            << "old"
            << "/dev/full" << large
            << QByteArray("failed to write to new file: /dev/full: No space left on device");
    }

    void filesThatFail()
    {
        QFETCH(QString, oldFile);
        QFETCH(QString, newFile);
        QFETCH(QByteArray, delta);
        QFETCH(QByteArray, message);
        const TemporaryTree tree;
        tree.write("old", "abcdef");
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(tree.path()));
        CapturedStream errors(stderr);
        const int result = apply(oldFile, newFile, delta);
        const QByteArray text = errors.text();
        QVERIFY(QDir::setCurrent(before));
        QCOMPARE(text, "tst_delta_bspatch2: " + message + '\n');
        QCOMPARE(result, -1);
        QVERIFY(!QFile::exists(tree.path("new")));
    }

    void cutAtEveryLength()
    {
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", "abcdef");
        const QString newFile = tree.write("new", "before");
        for (qsizetype length = 0; length < sampleDelta().size(); ++length) {
            CapturedStream output(stdout);
            CapturedStream errors(stderr);
            const int result = apply(oldFile, newFile, sampleDelta().first(length));
            const QByteArray shown = output.text();
            const QByteArray message = errors.text();
            QCOMPARE(result, -1);
            QCOMPARE(shown, QByteArray(length < 32 ? "header error\n" : ""));
            QVERIFY2(length >= 32 || message == "tst_delta_bspatch2: Corrupt patch\n\n", message.constData());
            QCOMPARE(message.count("tst_delta_bspatch2: "), 1);
            QCOMPARE(tree.read("new"), QByteArray("before"));
        }
    }

    /// Whatever the bytes are, a delta is applied or refused.
    void damagedDeltas()
    {
        const TemporaryTree tree;
        const QString oldFile = tree.write("old", "abcdef");
        std::mt19937 random(5);
        CapturedStream errors(stderr);
        for (int round = 0; round < 1000; ++round) {
            QByteArray delta = sampleDelta();
            const QString newFile = tree.write("new", "before");
            for (unsigned i = random() % 3 + 1; i > 0; --i) {
                const qsizetype at = 8 + random() % unsigned(delta.size() - 8);
                if (at < 26 || at >= 32) // large sizes take long in sanitized builds
                    delta[at] = char(random() % 2 ? random() % 8 : random());
            }
            const int result = apply(oldFile, newFile, delta);
            QVERIFY(result == 0 || (result == -1 && tree.read("new") == "before"));
        }
    }

    void inPlaceKeepsTheMode()
    {
        const TemporaryTree tree;
        const QString file = tree.write("file", "abcdef", 0640);
        QCOMPARE(apply(file, file, handMadeDelta(2, {0, 2, 0}, "", "XY")), 0);
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

            bytes = readfile(path.constData(), nullptr);
            QVERIFY(bytes);
            std::free(bytes);
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
