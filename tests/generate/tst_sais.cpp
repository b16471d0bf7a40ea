#include "generate/makedelta.h"
#include "generate/sais.h"

#include "support/CapturedOutput.h"
#include "support/Case.h"
#include "support/DeltaSupport.h"
#include "support/RepetitiveText.h"

#include <algorithm>
#include <csignal>
#include <sys/wait.h>

namespace {

using Entries = std::vector<std::int64_t>;
using Names = std::vector<std::int32_t>; // texts and entries of the levels below the first

const unsigned char *data(const QByteArray &text)
{
    return reinterpret_cast<const unsigned char *>(text.constData());
}

std::vector<unsigned char> bytesOf(const QByteArray &text)
{
    return {text.begin(), text.end()};
}

// Neighbours are in order when their first symbols are, or these are equal and the suffixes behind them in
// order.
template <typename Text, typename Entry> bool isSuffixArray(const Text &text, const Entry *SA)
{
    const auto n = std::int64_t(text.size());
    Entries rank(text.size() + 1, -1);
    for (std::int64_t i = 0; i < n; ++i) {
        if (SA[i] < 0 || SA[i] >= n || rank[SA[i]] != -1)
            return false;
        rank[SA[i]] = i;
    }
    for (std::int64_t i = 1; i < n; ++i) {
        const auto a = SA[i - 1];
        const auto b = SA[i];
        if (text[a] > text[b] || (text[a] == text[b] && rank[a + 1] >= rank[b + 1]))
            return false;
    }
    return true;
}

Names brokenPeriod(int n, int symbols, int period)
{
    std::mt19937 random(unsigned(n + period));
    Names text(n);
    for (int i = 0; i < n; ++i)
        text[i] = i < period || i % 1013 == 0 ? int(random() >> 1) % symbols : text[i - period];
    return text;
}

Names alternatingText(int n, int symbols)
{
    std::mt19937 random(unsigned(n + symbols));
    const unsigned half = unsigned(symbols) / 2;
    Names text(n);
    for (int i = 0; i < n; ++i)
        text[i] = int(i % 2 * half + random() % half);
    std::copy_n(text.begin(), 20, text.end() - 20); // at least some substrings are equal
    return text;
}

// The last column of the sorted rotations of the text with its end mark, which is then left out.
QByteArray transformed(const QByteArray &text, const Entries &suffixes, std::int64_t *row)
{
    QByteArray transform(text.last(1));
    for (std::size_t i = 0; i < suffixes.size(); ++i) {
        if (suffixes[i] == 0)
            *row = std::int64_t(i) + 1;
        else
            transform += text.at(suffixes[i] - 1);
    }
    return transform;
}

} // namespace

class tst_sais : public QObject
{
    Q_OBJECT

    static void compareTransforms(const QByteArray &text, Entries SA)
    {
        std::int64_t row = 0;
        const QByteArray expected = transformed(text, SA, &row);
        QByteArray U(text.size(), '\0');
        auto *const bytes = reinterpret_cast<unsigned char *>(U.data());
        QCOMPARE(sais_bwt(data(text), bytes, SA.data(), int(text.size())), row);
        QVERIFY(U == expected);
    }

private slots:
    // Every text over a small alphabet up to a length, which has each shape of runs and repeats.
    void everySmallText()
    {
        for (const auto &[alphabet, longest] : {std::pair(2, 14), {3, 8}}) {
            for (int length = 0, count = 1; length <= longest; ++length, count *= alphabet) {
                for (int number = 0; number < count; ++number) {
                    QByteArray text;
                    for (int rest = number; text.size() < length; rest /= alphabet)
                        text += char(0x7F + rest % alphabet);
                    const Case current(text.toHex());
                    Entries SA(length + 1, 77);
                    QCOMPARE(sais(data(text), SA.data(), length), 0);
                    QVERIFY(isSuffixArray(bytesOf(text), SA.data()));
                    QCOMPARE(SA.back(), 77); // nothing is written behind the entries
                    SA.pop_back();
                    if (length > 0)
                        compareTransforms(text, SA);
                }
            }
        }
    }

    void repetitiveTexts()
    {
        for (unsigned seed = 0; seed < 2000; ++seed) {
            const Case current("text " + QString::number(seed));
            std::mt19937 random(seed);
            const auto pick = [&random](std::uint32_t most) { return std::uint32_t(random()) % (most + 1); };
            const QByteArray text = QByteArray::fromStdString(zel::repetitiveText(pick));
            Entries SA(text.size() + 1);
            QCOMPARE(sais(data(text), SA.data(), int(text.size())), 0);
            QVERIFY(isSuffixArray(bytesOf(text), SA.data()));
        }
    }

    void largeTexts()
    {
        const QByteArray random = randomBytes(1 << 20, 256, 1);
        QByteArray descending;
        for (int i = 255; i >= 0; --i)
            descending += QByteArray(4000, char(i));
        const std::pair<const char *, QByteArray> cases[] = {
            {"random bytes", random},
            {"two symbols", randomBytes(2'000'000, 2, 2)},
            {"one symbol", QByteArray(1'000'000, 'x')},
            {"long period", random.first(1000).repeated(1000)},
            {"copy of itself", random + random},
            {"Fibonacci", fibonacciBytes(3'000'000)},
            {"descending runs", descending},
        };
        for (const auto &[name, text] : cases) {
            const Case current(name);
            Entries SA(text.size());
            QCOMPARE(sais(data(text), SA.data(), int(text.size())), 0);
            QVERIFY(isSuffixArray(bytesOf(text), SA.data()));
            compareTransforms(text, SA);
        }
    }

    // Each place that the counts and bounds can live in, with either sort of the LMS substrings, on integer
    // symbols.
    void layouts()
    {
        const std::tuple<const char *, int, int, int> cases[] = {
            {"C apart, B and D in free space", 5000, 200, 600},
            {"C apart, B in free space, D apart", 5000, 200, 450},
            {"C and B apart", 5000, 200, 199},
            {"C and B apart, too few symbols for D", 300, 200, 0},
            {"C, B and D in free space", 5000, 300, 1200},
            {"C and B in free space", 5000, 300, 1199},
            {"C and B in free space, all of it needed", 60'000, 300, 600},
            {"C in free space, B apart", 5000, 1024, 2047},
            {"C and B one place in free space", 5000, 1025, 2049},
            {"C and B one place apart", 5000, 1025, 1024},
        };
        for (const auto &[name, n, k, fs] : cases) {
            const Case current(name);
            constexpr int alternating = 0;
            for (const int symbols : {2, 16, k}) {
                // A short period with breaks makes a deep recursion, few symbols a shallow one; ups and
                // downs in turn make the most LMS suffixes and so leave the recursion the least space.
                for (const int period : {n, 7, 600, alternating}) {
                    const Names text = period == alternating ? alternatingText(n, symbols)
                                                             : brokenPeriod(n, symbols, period);
                    constexpr std::int32_t untouched = -77;
                    Names SA(n + fs + 1, untouched);
                    QCOMPARE(zel::sais_main(text.data(), SA.data(), fs, n, k, false), 0);
                    QVERIFY(isSuffixArray(text, SA.data()));
                    QCOMPARE(SA.back(), untouched);

                    Names transform(n + fs);
                    const auto row = zel::sais_main(text.data(), transform.data(), fs, n, k, true);
                    QCOMPARE(SA[row], 0);
                    for (int i = 0; i < n; ++i)
                        QVERIFY(i == row || transform[i] == text[SA[i] - 1]);
                }
            }
        }
    }

    // The integer entries sort the first bytes of their text.
    void integerEntries()
    {
        const Entries text{3, 1, 4, 1, 5, 9, 2, 6, 5, 3, 5, 8};
        const QByteArray bytes(reinterpret_cast<const char *>(text.data()), qsizetype(text.size()));
        Entries SA(text.size());
        QCOMPARE(sais_int(text.data(), SA.data(), int(text.size()), 10), 0);
        QVERIFY(isSuffixArray(bytesOf(bytes), SA.data()));

        Entries U(text.size());
        std::int64_t row = 0;
        QByteArray transform = transformed(bytes, SA, &row);
        transform[0] = char(text.back());
        QCOMPARE(sais_int_bwt(text.data(), U.data(), SA.data(), int(text.size()), 10), row);
        QVERIFY(std::equal(U.begin(), U.end(), transform.begin(), transform.end()));
    }

    void refusedArguments()
    {
        const unsigned char T[2] = {'b', 'a'};
        const std::int64_t integers[2] = {1, 0};
        unsigned char U[2] = {};
        std::int64_t SA[2] = {77, 77};
        std::int64_t integerU[2] = {};
        QCOMPARE(sais(T, SA, -1), -1);
        QCOMPARE(sais(nullptr, SA, 0), -1);
        QCOMPARE(sais(T, nullptr, 2), -1);
        QCOMPARE(sais_int(integers, SA, 2, 0), -1);
        QCOMPARE(sais_int(nullptr, SA, 2, 2), -1);
        QCOMPARE(sais_bwt(T, nullptr, SA, 2), -1);
        QCOMPARE(sais_bwt(T, U, SA, -1), -1);
        QCOMPARE(sais_bwt(T, U, nullptr, 2), -1);
        QCOMPARE(sais_bwt(T, U, SA, 0), 0);
        QCOMPARE(U[0], 0);
        QCOMPARE(sais_int_bwt(integers, integerU, SA, 2, 0), -1);
        QCOMPARE(SA[0], 77);

        const std::int32_t text[4] = {1, 0, 1, 0};
        std::int32_t room[4];
        QCOMPARE(zel::sais_main(text, room, 0, 4, std::int64_t(1) << 60, false), -2); // memory is exhausted
    }

    // Assertions are active in every build and name their expression, routine and unit.
    void brokenPreconditionAborts()
    {
        CapturedStream output(stderr);
        const pid_t child = ::fork();
        if (child == 0) {
            std::signal(SIGABRT, SIG_DFL);
            const unsigned char T = 'a';
            std::int32_t SA[1];
            zel::sais_main(&T, SA, -1, 1, 256, false);
            ::_exit(0);
        }
        int status = 0;
        QCOMPARE(::waitpid(child, &status, 0), child);
        const QByteArray text = output.text();
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), SIGABRT);
        QVERIFY2(text.contains("sais.cpp:"), text.constData());
        QVERIFY2(text.contains("sais_main: Assertion `(0 <= fs) && (0 < n) && (1 <= k)' failed."),
                 text.constData());
    }
};

QTEST_GUILESS_MAIN(tst_sais)
#include "tst_sais.moc"
