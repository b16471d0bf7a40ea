#include "publish/PatchWriter.h"

#include "delta/deltaformat.h"

#include <QtTest>

using namespace zel;

namespace {

constexpr qsizetype KiB = 1024;
constexpr qsizetype MiB = KiB * 1024;

QByteArray integer(qint64 value)
{
    const auto bytes = encodeDeltaInteger(value);
    return {reinterpret_cast<const char *>(bytes.data()), qsizetype(bytes.size())};
}

/// Slices one after the other, and their commands.
struct Payload {
    std::vector<PatchCommand> commands;
    QByteArray bytes;

    Payload &slice(PatchAction action, const QByteArray &content)
    {
        PatchCommand command;
        command.action = action;
        command.position = bytes.size();
        command.length = content.size();
        commands.push_back(command);
        bytes += content;
        return *this;
    }

    Payload &whole(qsizetype size) { return slice(PatchAction::Add, QByteArray(size, 'w')); }

    Payload &delta(qsizetype control, qsizetype diff, qsizetype extra)
    {
        return slice(PatchAction::Patch,
                     "BSDIFN40" + integer(control) + integer(diff) + integer(0)
                         + QByteArray(control + diff + extra, 'd'));
    }
};

using Blocks = QList<std::pair<qsizetype, XZContent>>;

} // namespace

Q_DECLARE_METATYPE(Payload)

class tst_PatchWriter : public QObject
{
    Q_OBJECT
private slots:
    void blocks_data()
    {
        QTest::addColumn<Payload>("payload");
        QTest::addColumn<Blocks>("expected");

        using enum XZContent;
        QTest::newRow("nothing") << Payload() << Blocks();
        QTest::newRow("small things together") << Payload().whole(10).delta(24, 100, 7).whole(0).whole(20)
                                               << Blocks{{10 + 32 + 131 + 20, Bytes}};
        QTest::newRow("the parts of a large delta")
            << Payload().delta(100 * KiB, 200 * KiB, 300 * KiB)
            << Blocks{{100 * KiB + 32, Records}, {200 * KiB, Sparse}, {300 * KiB, Bytes}};
        QTest::newRow("small parts beside large ones")
            << Payload().whole(5).delta(24, 200 * KiB, 6).whole(7)
            << Blocks{{5 + 32 + 24, Bytes}, {200 * KiB, Sparse}, {6 + 7, Bytes}};
        QTest::newRow("large parts are divided")
            << Payload().whole(60 * MiB).delta(24, 10 * MiB, 0).delta(24, 20 * MiB, 3 * MiB)
            << Blocks{{30 * MiB, Bytes},      {30 * MiB, Bytes},      {56, Records},
                      {10 * MiB / 4, Sparse}, {10 * MiB / 4, Sparse}, {10 * MiB / 4, Sparse},
                      {10 * MiB / 4, Sparse}, {56, Records},          {10 * MiB, Sparse},
                      {10 * MiB, Sparse},     {3 * MiB, Bytes}};
        QTest::newRow("a run has its end") << Payload().whole(90 * KiB) << Blocks{{90 * KiB, Bytes}};
        const QByteArray beyond = "BSDIFN40" + integer(24) + integer(200 * KiB) + QByteArray(200 * KiB, 'd');
        QTest::newRow("no delta at all") << Payload()
                                                .slice(PatchAction::Patch, "short")
                                                .slice(PatchAction::Patch, QByteArray(200 * KiB, '\x7F'))
                                                .slice(PatchAction::Patch, beyond)
                                         << Blocks{{5, Bytes}, {200 * KiB, Bytes}, {beyond.size(), Bytes}};
    }

    void blocks()
    {
        QFETCH(Payload, payload);
        QFETCH(Blocks, expected);
        Blocks found;
        qsizetype at = 0;
        for (const XZBlock &block : payloadBlocks(payload.commands, payload.bytes)) {
            QCOMPARE(block.data.data() - payload.bytes.constData(), at);
            at += block.data.size();
            found.append({block.data.size(), block.content});
        }
        QCOMPARE(at, payload.bytes.size());
        QCOMPARE(found, expected);
    }

    // What a reader refuses is not written either.
    void limitsOfCommands_data()
    {
        QTest::addColumn<qint64>("count");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("reason");
        QTest::newRow("commands") << PatchFile::CommandLimit + 1 << "a"
                                  << "200000 commands";
        QTest::newRow("names") << qint64(1001) << QString("a/").repeated(499) + "a"
                               << "500000 names";
        QTest::newRow("manifest") << qint64(4096) << QString(4096, 'a') << "16 MiB";
    }

    void limitsOfCommands()
    {
        QFETCH(qint64, count);
        QFETCH(QString, path);
        QFETCH(QString, reason);
        PatchCommand command;
        command.path = path;
        QByteArray bytes;
        const ZELError error = encodePatchFile(std::vector(size_t(count), command), {},
                                               std::numeric_limits<qint64>::max(), bytes);
        QVERIFY2(error.message.contains(reason), qPrintable(error.message));
    }
};

QTEST_GUILESS_MAIN(tst_PatchWriter)
#include "tst_PatchWriter.moc"
