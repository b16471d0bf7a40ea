#include "publish/XZWriter.h"
#include "support/Case.h"
#include "xz/XZ.h"

#include <QtEndian>
#include <QtTest>

#include <zlib.h>

using namespace zel;

namespace {

constexpr qint64 NoLimit = qint64(1) << 40;

QByteArray blocksOf(std::initializer_list<XZBlock> blocks, qint64 memory = NoLimit)
{
    return compressXZBlocks(std::span(blocks.begin(), blocks.size()), memory).value();
}

} // namespace

class tst_XZ : public QObject
{
    Q_OBJECT
private slots:
    void roundTripAndFaults()
    {
        const QByteArray records = QByteArray("\x18\0\0\0\0\0\0\0\2\0\0\0\0\0\0\x80", 16).repeated(50);
        const QByteArray sparse = QByteArray(3000, '\0') + '\1';
        // The last has a block of each kind, one of them empty.
        QList<std::pair<QByteArray, QByteArray>> cases{
            {records + sparse + "text",
             blocksOf({{records, XZContent::Records}, {sparse, XZContent::Sparse}, {""}, {"text"}})}};
        for (const QByteArray &data : {QByteArray(), QByteArray("x"), QByteArray("text ").repeated(100000)})
            cases.prepend({data, compressXZ(data).value()});
        for (const auto &[data, packed] : cases) {
            const Case current(QString::number(data.size()));
            QCOMPARE(decompressXZ(packed, data.size()), std::optional(data));
            QCOMPARE(decompressXZ(packed + '\0', data.size()), std::nullopt);
            QCOMPARE(decompressXZ(packed + packed, 2 * data.size()), std::nullopt);
            if (!data.isEmpty())
                QCOMPARE(decompressXZ(packed, data.size() - 1), std::nullopt);
            for (qsizetype at = 0; at < packed.size(); ++at) {
                QByteArray damaged = packed;
                damaged[at] = char(~damaged[at]);
                QCOMPARE(decompressXZ(damaged, NoLimit), std::nullopt);
                QCOMPARE(decompressXZ(packed.first(at), NoLimit), std::nullopt);
            }
        }
    }

    // What is wrong although every checksum is right.
    void contradictions()
    {
        // The index: mark, count, two sizes, checksum; then the footer.
        QByteArray longer = compressXZ("text").value();
        const qsizetype index = longer.size() - 12 - 8;
        QCOMPARE(longer[index + 3], 4);
        longer[index + 3] = 5;
        const auto *const bytes = reinterpret_cast<const unsigned char *>(longer.constData());
        qToLittleEndian(quint32(::crc32(0, bytes + index, 4)), longer.data() + index + 4);
        QCOMPARE(decompressXZ(longer, NoLimit), std::nullopt);

        QByteArray otherCheck = compressXZ("").value();
        otherCheck.replace(0, 12, QByteArray::fromHex("fd377a585a0000016922de36"));
        QCOMPARE(decompressXZ(otherCheck, NoLimit), std::nullopt);
    }

    // Sound streams of "text", which every full reader reads.
    void otherFiltersAreRefused()
    {
        const QByteArray head = "fd377a585a0000016922de360201";
        const QByteArray tail = "00c7a78b3b000118046be9f0a59042990d010000000001595a";
        for (const char *filter :
             {"0400210116000d86351f01000374657874", "0301002101167920c4ee01000374f113fc"}) // x86, delta
            QCOMPARE(decompressXZ(QByteArray::fromHex(head + filter + tail), NoLimit), std::nullopt);
    }

    void memoryChangesNothing()
    {
        const QByteArray data = QByteArray("some text, ").repeated(10000);
        QCOMPARE(blocksOf({{data}, {data}, {data}}, 1), blocksOf({{data}, {data}, {data}}));
    }

    void tooManyBlocks()
    {
        const std::vector<XZBlock> blocks((1 << 16) + 1, {"x", XZContent::Sparse});
        const QByteArray packed = compressXZBlocks(blocks, NoLimit).value();
        QCOMPARE(decompressXZ(packed, NoLimit), std::nullopt);
        const auto fewer = std::span(blocks).first(1 << 16);
        QCOMPARE(decompressXZ(compressXZBlocks(fewer, NoLimit).value(), NoLimit).value().size(), 1 << 16);
    }

    void estimates()
    {
        QByteArray random(20 << 20, Qt::Uninitialized);
        QRandomGenerator generator(1);
        generator.fillRange(reinterpret_cast<quint32 *>(random.data()), random.size() / 4);
        const QByteArray half = random.first(random.size() / 2) + QByteArray(random.size() / 2, '\0');
        QVERIFY(estimateXZ(random) > random.size() * 9 / 10);
        QVERIFY(estimateXZ(half) > random.size() * 4 / 10 && estimateXZ(half) < random.size() * 6 / 10);
    }
};

QTEST_GUILESS_MAIN(tst_XZ)
#include "tst_XZ.moc"
