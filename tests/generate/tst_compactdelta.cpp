#include "generate/compactdelta.h"

#include "support/DeltaSupport.h"

#include <QtTest>

namespace {

// One triple's; the first starts at the start of both files.
struct Copy {
    qint64 start; // in the new file
    qint64 oldStart;
    qint64 length;
};

QByteArray deltaOf(const QByteArray &old, const QByteArray &fresh, const QList<Copy> &copies)
{
    QList<qint64> control;
    QByteArray diff;
    QByteArray extra;
    for (qsizetype i = 0; i < copies.size(); ++i) {
        const auto &[start, oldStart, length] = copies[i];
        const bool isLast = i + 1 == copies.size();
        const qint64 end = start + length;
        const qint64 next = isLast ? fresh.size() : copies[i + 1].start;
        control << length << next - end << (isLast ? 0 : copies[i + 1].oldStart - (oldStart + length));
        for (qint64 at = 0; at < length; ++at)
            diff += char(fresh[start + at] - old[oldStart + at]);
        extra += fresh.mid(end, next - end);
    }
    return handMadeDelta(fresh.size(), control, diff, extra);
}

QByteArray compacted(const QByteArray &old, const QByteArray &fresh, const QByteArray &delta)
{
    const auto bytes = zel::compactDelta(view(old), view(fresh), view(delta));
    return bytes ? toBytes(*bytes) : QByteArray();
}

} // namespace

// That the new file stays the same is tested with the deltas of bsdiff2.
class tst_compactdelta : public QObject
{
    Q_OBJECT
private slots:
    void choices()
    {
        const QByteArray old = randomBytes(6000, 256, 1);
        const QByteArray other = randomBytes(6000, 256, 2);
        const auto changed = [](QByteArray bytes, qsizetype from, qsizetype count) {
            for (qsizetype i = from; i < from + count; ++i)
                bytes[i] = char(bytes[i] + 1);
            return bytes;
        };
        const auto chooses = [&](const QByteArray &fresh, const QList<Copy> &given,
                                 const QList<Copy> &chosen) {
            return compacted(old, fresh, deltaOf(old, fresh, given)) == deltaOf(old, fresh, chosen);
        };
        const Copy start{0, 0, 0};
        const Copy all{0, 0, 6000};
        // Four for a new byte, ten for a changed one, a hundred for a copy: too short, and long enough.
        QVERIFY(chooses(other.first(500) + old.mid(900, 24) + other.mid(500, 500), {start, {500, 900, 24}},
                        {start}));
        QVERIFY(chooses(other.first(500) + old.mid(900, 27) + other.mid(500, 500), {start, {500, 900, 27}},
                        {start, {500, 900, 27}}));
        // Strays within a copy.
        QVERIFY(chooses(old.first(1000) + "strays" + old.mid(1006),
                        {{0, 0, 1000}, {1000, 3000, 3}, {1003, 50, 3}, {1006, 1006, 4994}}, {all}));
        // Begun late and ended early, begun early and ended late.
        QVERIFY(chooses(old.mid(2000, 3000), {start, {700, 2700, 1000}}, {start, {0, 2000, 3000}}));
        QVERIFY(chooses(other.first(300) + old.mid(2000, 2000) + other.mid(300, 300),
                        {start, {100, 1800, 2400}}, {start, {300, 2000, 2000}}));
        // The one before went on for too long.
        QVERIFY(chooses(old.first(1000) + old.mid(4000, 1000), {{0, 0, 1500}, {1500, 4500, 500}},
                        {{0, 0, 1000}, {1000, 4000, 1000}}));
        // Changed, for a while and for too long.
        QVERIFY(chooses(changed(old, 3000, 16), {all}, {all}));
        QVERIFY(chooses(changed(old, 3000, 19), {all}, {{0, 0, 3000}, {3019, 3019, 2981}}));
        // Zeros around the old file, and both of its ends.
        const QByteArray zeros(40, '\0');
        const QList<Copy> within{start, {40, 0, 6000}};
        QVERIFY(chooses(zeros + old + zeros, within, within));
        const QList<Copy> ends{start, {0, 5900, 100}, {100, 0, 100}};
        QVERIFY(chooses(old.last(100) + old.first(100), ends, ends));
    }

    void copiesOutsideAreRefused()
    {
        const QByteArray old(100, 'o');
        const QByteArray zeros(10, '\0');
        const auto refuses = [&](const QByteArray &delta) {
            return compacted(old, old.first(10), delta).isEmpty();
        };
        QVERIFY(!refuses(handMadeDelta(10, {5, 0, 90, 5, 0, 0}, zeros, zeros)));
        const QList<qint64> outside[] = {
            {5, 0, -6, 5, 0, 0}, // before the old file
            {5, 0, 91, 5, 0, 0}, // past it
            {5, 0, 96, 0, 5, 0}, // a seek past it
            {11, 0, 0}, // past the new file
            {5, 6, 0}, // an insert past it
            {-1, 0, 0},          {5, -1, 0},
        };
        for (const QList<qint64> &control : outside)
            QVERIFY2(refuses(handMadeDelta(10, control, zeros, zeros)),
                     qPrintable(QDebug::toString(control)));
        QVERIFY(refuses("BSDIFN40"));
        QVERIFY(refuses("BSDIFN40" + deltaIntegers({1, 0, 10})));
    }
};

QTEST_GUILESS_MAIN(tst_compactdelta)
#include "tst_compactdelta.moc"
