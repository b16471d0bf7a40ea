#include "publish/compactdelta.h"

#include "support/DeltaSupport.h"

#include <QtTest>

namespace {

/// One triple's; the first starts at the start of both files.
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
    return bytes ? QByteArray(reinterpret_cast<const char *>(bytes->data()), qsizetype(bytes->size()))
                 : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(QList<Copy>)

// That the new file stays the same is tested with the deltas of bsdiff2.
class tst_compactdelta : public QObject
{
    Q_OBJECT
private slots:
    void choices_data()
    {
        QTest::addColumn<QByteArray>("old");
        QTest::addColumn<QByteArray>("fresh");
        QTest::addColumn<QList<Copy>>("given");
        QTest::addColumn<QList<Copy>>("chosen");

        const QByteArray old = randomBytes(6000, 256, 1);
        const QByteArray other = randomBytes(6000, 256, 2);
        const auto changed = [](QByteArray bytes, qsizetype from, qsizetype count) {
            for (qsizetype i = from; i < from + count; ++i)
                bytes[i] = char(bytes[i] + 1);
            return bytes;
        };
        const auto row = [](const char *name, const QByteArray &from, const QByteArray &to,
                            const QList<Copy> &given, const QList<Copy> &chosen) {
            QTest::newRow(name) << from << to << given << chosen;
        };
        const Copy Start{0, 0, 0};
        // Four for a new byte, ten for a changed one, a hundred for a copy.
        row("too short", old, other.first(500) + old.mid(900, 24) + other.mid(500, 500),
            {Start, {500, 900, 24}}, {Start});
        row("long enough", old, other.first(500) + old.mid(900, 27) + other.mid(500, 500),
            {Start, {500, 900, 27}}, {Start, {500, 900, 27}});
        row("strays within a copy", old, old.first(1000) + "strays" + old.mid(1006),
            {{0, 0, 1000}, {1000, 3000, 3}, {1003, 50, 3}, {1006, 1006, 4994}}, {{0, 0, 6000}});
        row("begun late, ended early", old, old.mid(2000, 3000), {Start, {700, 2700, 1000}},
            {Start, {0, 2000, 3000}});
        row("begun early, ended late", old, other.first(300) + old.mid(2000, 2000) + other.mid(300, 300),
            {Start, {100, 1800, 2400}}, {Start, {300, 2000, 2000}});
        row("the one before went on for too long", old, old.first(1000) + old.mid(4000, 1000),
            {{0, 0, 1500}, {1500, 4500, 500}}, {{0, 0, 1000}, {1000, 4000, 1000}});
        row("changed, for a while", old, changed(old, 3000, 16), {{0, 0, 6000}}, {{0, 0, 6000}});
        row("changed, for too long", old, changed(old, 3000, 19), {{0, 0, 6000}},
            {{0, 0, 3000}, {3019, 3019, 2981}});
        row("zeros around the old file", old, QByteArray(40, '\0') + old + QByteArray(40, '\0'),
            {Start, {40, 0, 6000}}, {Start, {40, 0, 6000}});
        row("both ends of the old file", old, old.last(100) + old.first(100),
            {Start, {0, 5900, 100}, {100, 0, 100}}, {Start, {0, 5900, 100}, {100, 0, 100}});
    }

    void choices()
    {
        QFETCH(QByteArray, old);
        QFETCH(QByteArray, fresh);
        QFETCH(QList<Copy>, given);
        QFETCH(QList<Copy>, chosen);
        QCOMPARE(compacted(old, fresh, deltaOf(old, fresh, given)), deltaOf(old, fresh, chosen));
    }

    void copiesOutsideAreRefused_data()
    {
        QTest::addColumn<QByteArray>("delta");
        const auto row = [](const char *name, const QList<qint64> &control) {
            QTest::newRow(name) << handMadeDelta(10, control, QByteArray(10, '\0'), QByteArray(10, '\0'));
        };
        row("before the old file", {5, 0, -6, 5, 0, 0});
        row("past the old file", {5, 0, 91, 5, 0, 0});
        row("seek past the old file", {5, 0, 96, 0, 5, 0});
        row("past the new file", {11, 0, 0});
        row("insert past the new file", {5, 6, 0});
        row("negative add", {-1, 0, 0});
        row("negative insert", {5, -1, 0});
        QTest::newRow("no header") << QByteArray("BSDIFN40");
        QTest::newRow("no control block") << "BSDIFN40" + deltaIntegers({1, 0, 10});
    }

    void copiesOutsideAreRefused()
    {
        QFETCH(QByteArray, delta);
        const QByteArray old(100, 'o');
        QVERIFY(compacted(old, old.first(10), handMadeDelta(10, {5, 0, 90, 5, 0, 0}, "..........", {})).size()
                > 0);
        QCOMPARE(compacted(old, old.first(10), delta), QByteArray());
    }
};

QTEST_GUILESS_MAIN(tst_compactdelta)
#include "tst_compactdelta.moc"
