#include "publish/PatchWriter.h"

#include "support/Case.h"
#include "support/DeltaSupport.h"

using namespace zel;

namespace {

constexpr qsizetype KiB = 1024;
constexpr qsizetype MiB = KiB * 1024;

// Slices one after the other, and their commands.
struct Payload {
    std::vector<PatchCommand> commands;
    QByteArray bytes;

    Payload &slice(PatchAction action, const QByteArray &content)
    {
        PatchCommand command;
        command.action = action;
        command.slices = {{bytes.size(), content.size()}};
        commands.push_back(command);
        bytes += content;
        return *this;
    }

    Payload &whole(qsizetype size) { return slice(PatchAction::Add, QByteArray(size, 'w')); }

    Payload &delta(qsizetype control, qsizetype diff, qsizetype extra)
    {
        return slice(PatchAction::Patch,
                     "BSDIFN40" + deltaIntegers({control, diff, 0})
                         + QByteArray(control + diff + extra, 'd'));
    }
};

using Blocks = QList<std::pair<qsizetype, XZContent>>;

} // namespace

class tst_PatchWriter : public QObject
{
    Q_OBJECT
private slots:
    void blocks()
    {
        using enum XZContent;
        const QByteArray beyond = "BSDIFN40" + deltaIntegers({24, 200 * KiB}) + QByteArray(200 * KiB, 'd');
        const std::tuple<const char *, Payload, Blocks> cases[] = {
            {"nothing", Payload(), Blocks()},
            {"small things together", Payload().whole(10).delta(24, 100, 7).whole(0).whole(20),
             Blocks{{10 + 32 + 131 + 20, Bytes}}},
            {"the parts of a large delta", Payload().delta(100 * KiB, 200 * KiB, 300 * KiB),
             Blocks{{100 * KiB + 32, Records}, {200 * KiB, Sparse}, {300 * KiB, Bytes}}},
            {"small parts beside large ones", Payload().whole(5).delta(24, 200 * KiB, 6).whole(7),
             Blocks{{5 + 32 + 24, Bytes}, {200 * KiB, Sparse}, {6 + 7, Bytes}}},
            {"large parts are divided",
             Payload().whole(60 * MiB).delta(24, 10 * MiB, 0).delta(24, 20 * MiB, 3 * MiB),
             Blocks(2, {30 * MiB, Bytes}) + Blocks{{56, Records}} + Blocks(4, {10 * MiB / 4, Sparse})
                 + Blocks{{56, Records}} + Blocks(2, {10 * MiB, Sparse}) + Blocks{{3 * MiB, Bytes}}},
            {"a run has its end", Payload().whole(90 * KiB), Blocks{{90 * KiB, Bytes}}},
            {"no delta at all",
             Payload()
                 .slice(PatchAction::Patch, "short")
                 .slice(PatchAction::Patch, QByteArray(200 * KiB, '\x7F'))
                 .slice(PatchAction::Patch, beyond),
             Blocks{{5, Bytes}, {200 * KiB, Bytes}, {beyond.size(), Bytes}}},
        };
        for (const auto &[name, payload, expected] : cases) {
            const Case current(name);
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
    }

    // What a reader refuses is not written either.
    void limitsOfCommands()
    {
        const std::tuple<const char *, qint64, QString, QString> cases[] = {
            {"commands", PatchManifest::CommandLimit + 1, "a", "200000 commands"},
            {"names", qint64(1001), QString("a/").repeated(499) + "a", "500000 names"},
            {"manifest", qint64(4096), QString(4096, 'a'), "16 MiB"},
        };
        for (const auto &[name, count, path, reason] : cases) {
            const Case current(name);
            PatchCommand command;
            command.path = path;
            PatchManifest manifest;
            manifest.commands.assign(size_t(count), command);
            QByteArray bytes;
            const ZELError error = encodePatchFile(manifest, {}, std::numeric_limits<qint64>::max(), bytes);
            QVERIFY2(error.message.contains(reason), qPrintable(error.message));
        }
    }
};

QTEST_GUILESS_MAIN(tst_PatchWriter)
#include "tst_PatchWriter.moc"
