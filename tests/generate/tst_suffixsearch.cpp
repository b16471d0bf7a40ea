#include "generate/sais.h"
#include "generate/suffixsearch.h"

#include "support/Case.h"
#include "support/DeltaSupport.h"

#include <cstring>
#include <QtTest>

class tst_suffixsearch : public QObject
{
    Q_OBJECT
private slots:
    // The bisection ends where it ends without a table, whatever suffix happens to be a prefix of the bytes.
    void samePath()
    {
        QList<std::tuple<const char *, QByteArray, int>> cases{
            {"empty", "", 256},
            {"one byte", "a", 256},
            {"two symbols", randomBytes(5000, 2, 1), 2},
            {"end begins like much", randomBytes(3000, 3, 2) + QByteArray(2, '\1'), 3},
            {"zeros", QByteArray(1000, '\0'), 2},
            {"zeros at the end", randomBytes(1000, 256, 3) + QByteArray(3, '\0'), 2},
            {"random bytes", randomBytes(5000, 256, 4), 256},
        };
        for (unsigned seed = 0; seed < 12; ++seed)
            cases.append({"so short that each suffix is looked at", randomBytes(4 + seed, 2, seed), 2});
        for (const auto &[name, text, alphabet] : cases) {
            const Case current(name);
            const QByteArray &old = text;
            const auto *const bytes = reinterpret_cast<const unsigned char *>(old.constData());
            std::vector<std::int64_t> I(std::size_t(old.size()) + 1, old.size());
            QCOMPARE(sais(bytes, I.data() + 1, int(old.size())), 0);
            const auto finish = [&](zel::Interval at, const QByteArray &wanted) {
                while (at.en - at.st >= 2) {
                    const auto x = at.st + (at.en - at.st) / 2;
                    const auto limit = std::min<std::int64_t>(old.size() - I[x], wanted.size());
                    const bool smaller =
                        std::memcmp(bytes + I[x], wanted.constData(), std::size_t(limit)) < 0;
                    (smaller ? at.st : at.en) = x;
                }
                return std::pair(at.st, at.en);
            };
            for (const int width : {2, 3}) {
                const zel::PrefixTable table({bytes, std::size_t(old.size())}, I.data(), width);
                for (unsigned seed = 0; seed < 1000; ++seed) {
                    const QByteArray wanted = randomBytes(seed % 12, alphabet, seed);
                    const zel::Interval narrowed = table.narrow(
                        reinterpret_cast<const unsigned char *>(wanted.constData()), wanted.size());
                    QVERIFY(finish(narrowed, wanted) == finish({0, old.size()}, wanted));
                }
            }
        }
    }
};

QTEST_GUILESS_MAIN(tst_suffixsearch)
#include "tst_suffixsearch.moc"
