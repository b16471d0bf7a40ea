#include "generate/makemovedelta.h"

#include "move/arm64.h"
#include "move/x86.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/MoveSample.h"
#include "support/PlainMoveDelta.h"
#include "support/SampleProgram.h"
#include "support/Table.h"

#include <QCryptographicHash>
#include <QFile>
#include <QtTest>

using zel::SampleProgram;
using zel::SampleReference;

namespace {

using Bytes = std::vector<unsigned char>;
using Delta = std::vector<std::byte>;
using Change = std::function<void(SampleProgram &)>;

constexpr unsigned NewFunction = SampleProgram::Unlike;

void sha256(std::span<const unsigned char> bytes, unsigned char *hash)
{
    const QByteArrayView view(bytes.data(), qsizetype(bytes.size()));
    QCryptographicHash sha(QCryptographicHash::Sha256);
    sha.addData(view);
    std::ranges::copy(sha.result(), hash);
}

Bytes toVector(const QByteArray &bytes)
{
    return {bytes.begin(), bytes.end()};
}

std::span<const unsigned char> asBytes(const Delta &delta)
{
    return {reinterpret_cast<const unsigned char *>(delta.data()), delta.size()};
}

std::optional<Bytes> rebuilt(const Bytes &old, const Delta &delta)
{
    Bytes fresh(zel::moveDeltaNewSize(asBytes(delta)).value_or(0));
    return zel::applyMoveDelta(old, asBytes(delta), fresh, sha256) ? std::optional(fresh) : std::nullopt;
}

std::optional<Bytes> rebuiltPlainly(const Bytes &old, const Delta &delta)
{
    return zel::PlainMoveDelta::apply(old, asBytes(delta), sha256);
}

// The delta, if it rebuilds the new file in both ways.
std::optional<Delta> madeDelta(const Bytes &old, const Bytes &fresh)
{
    const auto delta = zel::makeMoveDelta(old, fresh, sha256, {});
    const bool isRight = delta && rebuilt(old, *delta) == fresh && rebuiltPlainly(old, *delta) == fresh;
    return isRight ? delta : std::nullopt;
}

struct Counts {
    std::size_t corrections = 0;
    std::size_t unpredicted = 0; // as many as there were if copies were left as they are
    std::size_t inserted = 0;
};

Counts countsOf(const Bytes &old, const Bytes &fresh, const Delta &delta)
{
    const auto parts = zel::readMoveDelta(asBytes(delta));
    Counts counts;
    zel::NumberReader reader(parts->corrections);
    for (; !reader.isAtEnd(); ++counts.corrections) {
        reader.number();
        reader.byte();
    }
    for (const zel::MovedCopy &copy : parts->copies) {
        for (std::uint32_t i = 0; i < copy.length; ++i)
            counts.unpredicted += old[copy.oldStart + i] != fresh[copy.newStart + i];
    }
    counts.inserted = parts->inserts.size();
    return counts;
}

Bytes linked(const SampleProgram &program)
{
    return zel::SampleLinker(program, sha256).link();
}

SampleProgram completeProgram(SampleReference::Machine machine, bool isMachO)
{
    SampleProgram program;
    program.machine = machine;
    program.isMachO = isMachO;
    program.signatures = 1;
    program.words = program.pointers = program.chained = 200;
    for (const SampleReference &reference : zel::SampleReferences) {
        if (reference.machine == machine)
            program.references.push_back(&reference);
    }
    return program;
}

void insertFunction(SampleProgram &program)
{
    program.functions.insert(program.functions.begin() + 50, NewFunction);
}

const std::pair<const char *, Change> changes[] = {
    {"nothing", [](SampleProgram &) {}},
    {"a function more", insertFunction},
    {"functions less",
     [](SampleProgram &program) {
         program.functions.erase(program.functions.begin() + 30, program.functions.begin() + 40);
     }},
    {"another order",
     [](SampleProgram &program) {
         std::ranges::rotate(program.functions, program.functions.begin() + 37);
         std::ranges::reverse(program.constants);
     }},
    {"functions changed",
     [](SampleProgram &program) {
         for (unsigned i = 3; i < SampleProgram::Known; i += 17)
             program.functions[i] = NewFunction + i;
     }},
    {"all moved",
     [](SampleProgram &program) {
         insertFunction(program);
         program.base += 0x50000;
         program.constants.erase(program.constants.begin() + 50);
         program.cleared.insert(program.cleared.begin(), 700);
     }},
    {"unsigned", [](SampleProgram &program) { program.signatures = 0; }},
    {"signed with small pages", [](SampleProgram &program) { program.pageBits = 7; }},
    {"signed three times", [](SampleProgram &program) { program.signatures = 3; }},
    {"no code", [](SampleProgram &program) { program.functions.clear(); }},
};

Bytes executable(const char *name)
{
    QFile file(QCoreApplication::applicationDirPath() + '/' + name);
    return file.open(QFile::ReadOnly) ? toVector(file.readAll()) : Bytes();
}

// A delta of one image with two ranges, one copy, one correction and one hashed page, taken apart.
zel::MoveDelta smallDelta()
{
    static const unsigned char corrections[] = {40, 1};
    static const Bytes inserts(40 + 32);
    const zel::MovedRange code{zel::RangeKind::Arm64, true, {0, 0x1000, 64}, {0, 0x1000, 64}};
    const zel::MovedRange cleared{zel::RangeKind::Plain, false, {0, 0x2000, 64}, {0, 0x2000, 64}};
    return {.oldSize = 100,
            .newSize = 172,
            .images = {{0, 0, {code, cleared}}},
            .pageHashes = {{140, 0, 140, 256}},
            .copies = {{0, 0, 100}},
            .corrections = corrections,
            .inserts = inserts};
}

} // namespace

class tst_movedelta : public QObject
{
    Q_OBJECT
private slots:
    void programs()
    {
        for (const auto machine : {SampleReference::Arm64, SampleReference::X86_64}) {
            for (const bool isMachO : {false, true}) {
                for (const auto &[name, change] : changes) {
                    const Case current(QString("%1, %2, %3").arg(machine).arg(isMachO).arg(name));
                    const SampleProgram before = completeProgram(machine, isMachO);
                    SampleProgram after = before;
                    change(after);
                    QVERIFY(madeDelta(linked(before), linked(after)));
                }
            }
        }
    }

    void universalPrograms()
    {
        std::vector<Bytes> old, fresh;
        for (const auto machine : {SampleReference::X86_64, SampleReference::Arm64}) {
            SampleProgram program = completeProgram(machine, true);
            old.push_back(linked(program));
            insertFunction(program);
            fresh.push_back(linked(program));
        }
        const Bytes before = zel::SampleLinker::universal(old), after = zel::SampleLinker::universal(fresh);
        const auto delta = madeDelta(before, after);
        QVERIFY(delta);
        const Counts counts = countsOf(before, after, *delta);
        QVERIFY(counts.corrections < 100 && counts.unpredicted > 4000);
        QVERIFY(counts.inserted < 600); // no hashes of pages
    }

    void moreSectionsThanADeltaTakes()
    {
        SampleProgram program = completeProgram(SampleReference::Arm64, true);
        program.smallSections = 400;
        const Bytes old = linked(program);
        insertFunction(program);
        const Bytes fresh = linked(program);
        QVERIFY(madeDelta(zel::SampleLinker::universal({old, old, old}),
                          zel::SampleLinker::universal({fresh, fresh, fresh})));
    }

    void otherFiles()
    {
        const Bytes text = toVector(randomBytes(20'000, 20, 1));
        const std::tuple<const char *, Bytes, Bytes> cases[] = {
            {"both empty", {}, {}},
            {"old empty", {}, text},
            {"new empty", text, {}},
            {"equal", text, text},
            {"edited", text, toVector(edited(randomBytes(20'000, 20, 1), 50, 2))},
            {"unlike", text, toVector(randomBytes(10'000, 256, 3))},
            {"repetitive", toVector(fibonacciBytes(30'000)), toVector(fibonacciBytes(40'000).mid(77))},
            {"executables", executable("tst_generate_sais"), executable("tst_generate_compactdelta")},
        };
        for (const auto &[name, old, fresh] : cases) {
            const Case current(name);
            QVERIFY(madeDelta(old, fresh));
        }
    }

    // All that the format allows, whether anybody would make it or not.
    void anyDeltas()
    {
        int applied = 0;
        constexpr int samples = 1500;
        for (unsigned seed = 0; seed < samples; ++seed) {
            const Case current(QString("seed %1").arg(seed));
            std::mt19937 random(seed);
            const auto pick = [&](std::uint32_t most) {
                return std::uint32_t(random() % (std::uint64_t(most) + 1));
            };
            const auto [old, delta] = zel::MoveSampler(pick).make();
            if (zel::moveDeltaNewSize(asBytes(delta)).value_or(0) > 100'000)
                continue; // damaged
            const auto outcome = rebuilt(old, delta);
            QVERIFY(outcome == rebuiltPlainly(old, delta));
            applied += outcome.has_value();
        }
        QVERIFY2(applied > samples * 3 / 4, qPrintable(QString::number(applied)));
    }

    void corruptDeltas_data()
    {
        using zel::MoveDelta, zel::MovedRange, zel::PageHashes;
        const Table<std::function<void(MoveDelta &)>> row;
        const auto range = [](MoveDelta &delta, unsigned i) -> MovedRange & {
            return delta.images[0].ranges[i];
        };
        constexpr std::uint64_t top = ~std::uint64_t(0);
        row("another old file", [](MoveDelta &delta) { delta.oldSize = 101; });
        row("old size", [](MoveDelta &delta) { delta.oldSize = 0x80000000; });
        row("new size", [](MoveDelta &delta) { delta.newSize = 0x80000000; });
        row("images", [](MoveDelta &delta) { delta.images.resize(zel::MostImages + 1); });
        row("ranges", [](MoveDelta &delta) { delta.images[0].ranges.resize(zel::MostRanges + 1); });
        row("ranges of all images", [](MoveDelta &delta) {
            delta.images.resize(2);
            delta.images[1].ranges.resize(zel::MostRanges - 1);
        });
        row("ranges of words", [](MoveDelta &delta) {
            MovedRange empty;
            empty.kind = zel::RangeKind::Words;
            delta.images[0].ranges.resize(zel::MostWordRanges + 3, empty);
        });
        row("kind", [=](MoveDelta &delta) { range(delta, 0).kind = zel::RangeKind(zel::RangeKinds); });
        row("range behind the old file", [=](MoveDelta &delta) { range(delta, 0).old.offset = 37; });
        row("range behind the new file", [=](MoveDelta &delta) { range(delta, 0).now.offset = 109; });
        row("empty range behind the file", [=](MoveDelta &delta) { range(delta, 0).old = {101, 0x1000, 0}; });
        row("range's offset", [=](MoveDelta &delta) { range(delta, 0).old.offset = top - 20; });
        row("range's address", [=](MoveDelta &delta) { range(delta, 1).old.address = top - 63; });
        row("range's size", [=](MoveDelta &delta) { range(delta, 1).now.size = 0x80000000; });
        row("old addresses overlap", [=](MoveDelta &delta) { range(delta, 1).old.address = 0x103F; });
        row("new addresses overlap", [=](MoveDelta &delta) { range(delta, 1).now.address = 0x103F; });
        row("old offsets overlap", [=](MoveDelta &delta) {
            delta.images.push_back(delta.images[0]);
            range(delta, 0).now.size = 0;
        });
        row("new offsets overlap", [=](MoveDelta &delta) {
            delta.images.push_back(delta.images[0]);
            range(delta, 0).old.size = 0;
        });
        row("no page", [](MoveDelta &delta) { delta.pageHashes[0].end = 0; });
        row("pages behind their table", [](MoveDelta &delta) { delta.pageHashes[0].end = 141; });
        row("table behind the file", [](MoveDelta &delta) { delta.pageHashes[0].table = 141; });
        row("small pages", [](MoveDelta &delta) { delta.pageHashes[0].pageSize = 255; });
        row("large pages", [](MoveDelta &delta) { delta.pageHashes[0].pageSize = 0x80000000; });
        row("hashed too often", [](MoveDelta &delta) { delta.pageHashes.resize(3, delta.pageHashes[0]); });
        row("page hashes", [](MoveDelta &delta) { delta.pageHashes.resize(17, PageHashes{140, 0, 1, 256}); });
        row("empty copy", [](MoveDelta &delta) { delta.copies.push_back({100, 0, 0}); });
        row("copy before the old file", [](MoveDelta &delta) { delta.copies[0] = {0, ~0U, 100}; });
        row("copy behind the old file", [](MoveDelta &delta) { delta.copies[0] = {0, 1, 100}; });
        row("copy behind the new file", [](MoveDelta &delta) { delta.copies[0] = {73, 0, 100}; });
        row("inserts missing", [](MoveDelta &delta) { delta.inserts = delta.inserts.first(71); });
        row("inserts left", [](MoveDelta &delta) { delta.newSize = 171; });
        row("correction cut off", [](MoveDelta &delta) { delta.corrections = delta.corrections.first(1); });
        row("correction behind the copies", [](MoveDelta &delta) {
            static const unsigned char late[] = {100, 1};
            delta.corrections = late;
        });
        row("correction without a copy", [](MoveDelta &delta) {
            delta.copies = {};
            delta.oldSize = 100;
            delta.inserts = delta.inserts;
        });
    }
    void corruptDeltas()
    {
        const auto [damage] = Table<std::function<void(zel::MoveDelta &)>>::current();
        const Bytes old(100, 0x94);
        zel::MoveDelta delta = smallDelta();
        QVERIFY(rebuilt(old, writeMoveDelta(delta)));
        damage(delta);
        const Delta damaged = writeMoveDelta(delta);
        Bytes fresh(std::min<std::uint64_t>(delta.newSize, 200));
        QVERIFY(!zel::applyMoveDelta(old, asBytes(damaged), fresh, sha256));
        QVERIFY(!rebuiltPlainly(old, damaged));
    }

    void damagedBytes()
    {
        const Bytes old(100, 0x94);
        const QByteArray whole = toBytes(writeMoveDelta(smallDelta()));
        const auto isTaken = [&](const QByteArray &bytes) {
            const auto delta = std::as_bytes(view(bytes));
            const Delta copy(delta.begin(), delta.end());
            const auto outcome = rebuilt(old, copy);
            return outcome == rebuiltPlainly(old, copy) ? std::optional(outcome.has_value()) : std::nullopt;
        };
        for (qsizetype size = 0; size < whole.size(); ++size)
            QCOMPARE(isTaken(whole.first(size)), false);
        for (qsizetype at = 0; at < whole.size(); ++at) {
            for (const int bit : {1, 0x80}) {
                const Case current(QString("byte %1").arg(at));
                QByteArray damaged = whole;
                damaged[at] = char(damaged[at] ^ bit);
                if (zel::moveDeltaNewSize(view(damaged)).value_or(0) < 100'000)
                    QVERIFY(isTaken(damaged));
            }
        }
        const auto with = [&](const char *part, const char *other) {
            QByteArray changed = whole;
            return changed.replace(QByteArray::fromHex(part), QByteArray::fromHex(other));
        };
        QCOMPARE(isTaken(with("4d4f56453164",
                              "4d4f564531e48080808080808080"
                              "00")),
                 true); // the old size, long
        QCOMPARE(isTaken(with("4d4f56453164",
                              "4d4f564531e48080808080808080"
                              "02")),
                 false); // beyond 64 bits
        QCOMPARE(isTaken(with("4d4f56453164",
                              "4d4f564531e4808080808080808080"
                              "00")),
                 false);
        QCOMPARE(isTaken(with("01010101006400",
                              "0101010100"
                              "6400")),
                 true); // as it was
        QCOMPARE(isTaken(with("01010101006400",
                              "010201010000"
                              "6400")),
                 false); // columns with a byte more
        QCOMPARE(isTaken(with("01010101006400",
                              "010102010064"
                              "0000")),
                 false);
        QCOMPARE(isTaken(with("01010101006400",
                              "010101020064"
                              "0000")),
                 false);
    }

    // What refers to places that moved need not be corrected.
    void predictions_data()
    {
        const Table<SampleProgram, int> row;
        for (const SampleReference &reference : zel::SampleReferences) {
            SampleProgram program;
            program.machine = reference.machine;
            program.references = {&reference};
            row(reference.name, program, 12); // those of headers
        }
        SampleProgram program;
        program.words = 1000;
        row("words", program, 60); // the first few with each shift
        program.words = 0;
        program.pointers = 1000;
        row("pointers", program, 12);
        program.pointers = 0;
        program.isMachO = true;
        program.chained = 1000;
        row("chained pointers", program, 12);
    }
    void predictions()
    {
        const auto [before, most] = Table<SampleProgram, int>::current();
        SampleProgram after = before;
        insertFunction(after);
        const Bytes old = linked(before), fresh = linked(after);
        const auto delta = madeDelta(old, fresh);
        QVERIFY(delta);
        const auto [corrections, unpredicted, inserted] = countsOf(old, fresh, *delta);
        QVERIFY2(inserted < 400, qPrintable(QString::number(inserted)));
        QVERIFY2(corrections <= std::size_t(most), qPrintable(QString::number(corrections)));
        QVERIFY2(unpredicted > 500, qPrintable(QString::number(unpredicted)));
    }

    void x86Instructions()
    {
        const std::tuple<const char *, unsigned, unsigned> cases[] = {
            // bytes, length, where the distance is
            {"90", 1, 0},
            {"c3", 1, 0},
            {"488b442408", 5, 0},
            {"488b05aaaaaaaa", 7, 3},
            {"8b8424aaaaaaaa", 7, 0},
            {"8b0425aaaaaaaa", 7, 0},
            {"c705aaaaaaaabbbbbbbb", 10, 2},
            {"66c705aaaaaaaabbbb", 9, 3},
            {"803daaaaaaaabb", 7, 2},
            {"f605aaaaaaaabb", 7, 2},
            {"f715aaaaaaaa", 6, 2},
            {"48f7c0bbbbbbbb", 7, 0},
            {"48b8bbbbbbbbbbbbbbbb", 10, 0},
            {"66b8bbbb", 4, 0},
            {"48a1bbbbbbbbbbbbbbbb", 10, 0},
            {"c8bbbbbb", 4, 0},
            {"c2bbbb", 3, 0},
            {"e8aaaaaaaa", 5, 1},
            {"0f85aaaaaaaa", 6, 2},
            {"7405", 2, 0},
            {"f30f1005aaaaaaaa", 8, 4},
            {"660f3a0f05aaaaaaaabb", 10, 5},
            {"0f38f005aaaaaaaa", 8, 4},
            {"0fba25aaaaaaaabb", 8, 3},
            {"0f05", 2, 0},
            {"c5f877", 3, 0},
            {"c5f97005aaaaaaaabb", 9, 4},
            {"c4e37d1805aaaaaaaabb", 10, 5},
            {"c4e27d1805aaaaaaaa", 9, 5},
            {"62f17c482805aaaaaaaa", 10, 6},
            {"62f37d483a05aaaaaaaabb", 11, 6},
            // none
            {"06", 1, 0},
            {"0f0f0000", 1, 0},
            {"c4e07d1805aaaaaaaa", 1, 0},
            {"e8aaaaaa", 1, 0},
            {"66666666666666666666666690", 13, 0},
            {"666666666666666666666666666690", 15, 0},
            {"66666666666666666666666666666690", 1, 0},
        };
        for (const auto &[code, length, distance] : cases) {
            const Case current(code);
            const QByteArray bytes = QByteArray::fromHex(code);
            const zel::x86::Instruction instruction = zel::x86::decode(view(bytes));
            QCOMPARE(instruction.length, length);
            QCOMPARE(instruction.distance, distance);
        }
    }
};

QTEST_GUILESS_MAIN(tst_movedelta)
#include "tst_movedelta.moc"
