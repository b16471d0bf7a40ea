// faults: does what the tools are for while system calls fail, and judges what comes of it.
//
// faults                      an even sample: each outcome of each call, once in each scenario
// faults CALL                 each time that a call is made, with each of its outcomes
// faults SCENARIO FAULT...    one run, shown; its folder is kept
#include "Calls.h"
#include "Scenarios.h"

#include <QCoreApplication>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

namespace {

struct FaultTrial {
    const Scenario *scenario = nullptr;
    QString fault;
    QString wrong;
    bool hit = false;
};

// The trials of one outcome of one call.
struct Group {
    QString call;
    QString outcome;
    std::vector<FaultTrial> trials;
};

// What runs full stays so: these are also tried from a call on.
bool lasts(std::string_view outcome)
{
    return outcome == "ENOSPC" || outcome == "EMFILE";
}

QStringList outcomesOf(const CallFaults &call)
{
    QStringList outcomes;
    for (const std::string_view outcome : call.outcomes) {
        const QString name = QString::fromLatin1(outcome.data(), qsizetype(outcome.size()));
        outcomes << name;
        if (lasts(outcome))
            outcomes << name + u'+';
    }
    return outcomes;
}

QString faultText(const QString &program, const QString &call, int number, const QString &outcome)
{
    const bool onwards = outcome.endsWith(u'+');
    return QString("%1:%2:%3%4:%5")
        .arg(program, call)
        .arg(number)
        .arg(onwards ? "+" : "", onwards ? outcome.chopped(1) : outcome);
}

class Plan
{
public:
    explicit Plan(const Stock &stock)
        : m_stock(stock)
    {
    }

    // Counts the calls of a run of each scenario without a fault; false when that already goes wrong.
    bool count()
    {
        for (const Scenario &scenario : m_stock.scenarios()) {
            const QTemporaryDir folder;
            ToolRun run;
            const QString wrong = judge(m_stock, scenario, {}, folder.path(), run);
            if (!wrong.isEmpty() || run.status != 0) {
                std::printf("%s fails without a fault: %s\n%s", qPrintable(scenario.name), qPrintable(wrong),
                            run.err.constData());
                return false;
            }
            m_calls[&scenario] = run.calls;
        }
        return true;
    }

    // All places where the call is made; without a call, one place for each outcome, spread evenly over the
    // runs.
    std::vector<Group> groups(const QString &wantedCall) const
    {
        std::vector<Group> groups;
        for (const CallFaults &call : knownCalls()) {
            const QString name = QString::fromLatin1(call.call.data(), qsizetype(call.call.size()));
            if (!wantedCall.isEmpty() && name != wantedCall)
                continue;
            for (const QString &outcome : outcomesOf(call)) {
                Group group{name, outcome, {}};
                for (const auto &[scenario, calls] : m_calls)
                    addTrials(group, *scenario, calls, !wantedCall.isEmpty());
                if (!group.trials.empty())
                    groups.push_back(std::move(group));
            }
        }
        return groups;
    }

private:
    void addTrials(Group &group, const Scenario &scenario, const QMap<QPair<QString, QString>, int> &calls,
                   bool all) const
    {
        for (auto item = calls.begin(); item != calls.end(); ++item) {
            const auto &[program, call] = item.key();
            if (call != group.call)
                continue;
            const auto add = [&](int number) {
                group.trials.push_back(
                    {&scenario, faultText(program, call, number, group.outcome), {}, false});
            };
            if (!all) {
                add(1 + int(item.value() * spread()));
                continue;
            }
            for (int number = 1; number <= item.value(); ++number)
                add(number);
        }
    }

    // Numbers from 0 to 1 of which the first few are already far apart, the same in each run of the program.
    double spread() const
    {
        constexpr double golden = 0.6180339887498949;
        return std::fmod(++m_spreads * golden, 1.0);
    }

    const Stock &m_stock;
    std::map<const Scenario *, QMap<QPair<QString, QString>, int>> m_calls;
    mutable int m_spreads = 0;
};

// On all processors; an injected call waits for the disk more than it computes.
void perform(const Stock &stock, Group &group)
{
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        for (std::size_t i = next++; i < group.trials.size(); i = next++) {
            FaultTrial &trial = group.trials[i];
            const QTemporaryDir folder;
            ToolRun run;
            trial.wrong = judge(stock, *trial.scenario, {trial.fault}, folder.path(), run);
            trial.hit = run.hit;
        }
    };
    std::vector<std::thread> threads(std::max(1U, std::thread::hardware_concurrency()) + 1);
    for (std::thread &thread : threads)
        thread = std::thread(work);
    for (std::thread &thread : threads)
        thread.join();
}

// A line for the group, and two for each trial that went wrong.
int show(const Group &group)
{
    int hit = 0, wrong = 0;
    for (const FaultTrial &trial : group.trials) {
        hit += trial.hit;
        wrong += !trial.wrong.isEmpty();
    }
    std::printf("%-18s %-12s %4d runs, %d wrong\n", qPrintable(group.call), qPrintable(group.outcome), hit,
                wrong);
    for (const FaultTrial &trial : group.trials) {
        if (!trial.wrong.isEmpty())
            std::printf("    %s\n    ./dev faults %s %s\n", qPrintable(trial.wrong.trimmed()),
                        qPrintable(trial.scenario->name), qPrintable(trial.fault));
    }
    std::fflush(stdout);
    return wrong;
}

int sample(const Stock &stock, const QString &call)
{
    Plan plan(stock);
    if (!plan.count())
        return 1;
    int wrong = 0;
    std::size_t runs = 0;
    for (Group &group : plan.groups(call)) {
        perform(stock, group);
        wrong += show(group);
        runs += group.trials.size();
    }
    std::printf("%zu runs, %d wrong\n", runs, wrong);
    return wrong == 0 && runs > 0 ? 0 : 1;
}

int repeat(const Stock &stock, const Scenario &scenario, const QStringList &faults)
{
    QTemporaryDir folder;
    folder.setAutoRemove(false);
    ToolRun run;
    const QString wrong = judge(stock, scenario, faults, folder.path(), run);
    const QString end = run.isKilled() ? QString("killed") : QString("exit status %1").arg(run.status);
    std::printf("%s%s%s%s\n%s\nIts folder: %s\n", run.out.constData(), run.err.constData(), qPrintable(end),
                run.hit || faults.isEmpty() ? "" : ", without coming to the fault",
                wrong.isEmpty() ? "Nothing is wrong." : qPrintable(wrong), qPrintable(folder.path()));
    return wrong.isEmpty() ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments().mid(1);
    const Stock stock;
    if (words.isEmpty())
        return sample(stock, {});
    if (const Scenario *const scenario = stock.find(words.first()))
        return repeat(stock, *scenario, words.mid(1));
    if (words.size() == 1 && findCall(words.first().toStdString()))
        return sample(stock, words.first());
    std::fprintf(stderr, "faults: '%s' is neither a call nor a scenario; these are the scenarios:\n",
                 qPrintable(words.first()));
    for (const Scenario &scenario : stock.scenarios())
        std::fprintf(stderr, "  %s\n", qPrintable(scenario.name));
    return 2;
}
