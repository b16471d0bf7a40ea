#include "platform/Queues.h"

#include "support/Case.h"
#include <algorithm>
#include <mutex>
#include <QtTest>
#include <thread>
#include <vector>

using namespace zel;

class tst_Queues : public QObject
{
    Q_OBJECT
private slots:
    void jobs()
    {
        QList<qint64> many;
        for (qint64 i = 0; i < 1000; ++i)
            many.append(i * 7919 % 100);
        const std::tuple<const char *, QList<qint64>, qint64> cases[] = {
            {"none", {}, 1},
            {"all fit", many, std::numeric_limits<qint64>::max()},
            {"few fit", many, 120},
            {"none fits", {5, 7, 6, 7}, 0},
        };
        for (const auto &[name, costs, budget] : cases) {
            const Case current(name);
            std::mutex mutex;
            std::vector<int> runs(size_t(costs.size()));
            std::vector<size_t> order;
            qint64 used = 0;
            int running = 0;
            bool within = true;
            const auto job = [&](size_t i) {
                std::unique_lock lock(mutex);
                order.push_back(i);
                ++runs[i];
                used += costs[qsizetype(i)];
                ++running;
                within = within && (running == 1 || used <= budget);
                lock.unlock();
                std::this_thread::yield();
                lock.lock();
                used -= costs[qsizetype(i)];
                --running;
            };
            runJobs(std::span(costs.constData(), size_t(costs.size())), job, budget);
            QCOMPARE(runs, std::vector<int>(runs.size(), 1));
            QVERIFY(within);
            if (!order.empty())
                QCOMPARE(costs[qsizetype(order.front())], *std::ranges::max_element(costs));
        }
    }
};

QTEST_GUILESS_MAIN(tst_Queues)
#include "tst_Queues.moc"
