#include "base/FileDescriptor.h"
#include "base/SignalShield.h"
#include "platform/Queues.h"
#include "support/ResourceLimit.h"

#include <QtTest>

#include <atomic>
#include <fcntl.h>
#include <future>
#include <latch>
#include <thread>
#include <unistd.h>

using namespace zel;

namespace {

void writeToBrokenPipe()
{
    int ends[2];
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    const FileDescriptor out(ends[1]);
    FileDescriptor(ends[0]).close();
    QCOMPARE(::write(out.get(), "x", 1), -1);
    QCOMPARE(errno, EPIPE);
}

void writeBeyondLimit()
{
    const FileDescriptor file(::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const ssize_t written = [&] {
        const ResourceLimit limit(RLIMIT_FSIZE, 100);
        return ::pwrite(file.get(), "x", 1, 200);
    }();
    QCOMPARE(written, -1);
    QCOMPARE(errno, EFBIG);
}

bool isBlocked(int signal)
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

bool isPending(int signal)
{
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

} // namespace

// The signals have their default actions: one that comes through ends the test.
class tst_SignalShield : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        std::signal(SIGPIPE, SIG_DFL);
        std::signal(SIGXFSZ, SIG_DFL);
    }

    void keepsItsOwn()
    {
        {
            const SignalShield shield;
            const SignalShield nested;
            writeToBrokenPipe();
            writeBeyondLimit();
            errno = ENOENT;
        }
        QCOMPARE(errno, ENOENT);
        QVERIFY(!isPending(SIGPIPE) && !isPending(SIGXFSZ));
        QVERIFY(!isBlocked(SIGPIPE) && !isBlocked(SIGXFSZ));
    }

    void leavesTheHosts()
    {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        const BlockedSignals hosts(pipe);
        pthread_kill(pthread_self(), SIGPIPE);
        {
            const SignalShield shield;
            writeToBrokenPipe();
            writeBeyondLimit();
        }
        QVERIFY(isPending(SIGPIPE) && isBlocked(SIGPIPE));
        QVERIFY(!isPending(SIGXFSZ) && !isBlocked(SIGXFSZ));
        const timespec now{};
        QCOMPARE(sigtimedwait(&pipe, nullptr, &now), SIGPIPE);
    }

    void globalQueue()
    {
        std::promise<bool> shielded;
        onGlobalQueue([&] {
            writeBeyondLimit();
            shielded.set_value(isBlocked(SIGPIPE));
        });
        QVERIFY(shielded.get_future().get());
    }

    void ownThreads()
    {
        std::atomic<int> seen = 0;
        const auto look = [&, main = std::this_thread::get_id()] {
            if (std::this_thread::get_id() != main && isBlocked(SIGTERM) && !isBlocked(SIGSEGV))
                ++seen;
        };
        std::promise<void> ended;
        const auto session = [&] {
            look();
            ended.set_value();
        };
        QVERIFY(startSession(session, {}));
        ended.get_future().wait();
        QCOMPARE(seen, 1);

        if (std::thread::hardware_concurrency() < 2)
            return;
        const qint64 costs[] = {1, 1};
        std::latch both(2);
        runJobs(costs, [&](size_t) {
            look();
            both.arrive_and_wait();
        });
        QCOMPARE(seen, 2);
        QVERIFY(!isBlocked(SIGTERM));
    }
};

QTEST_GUILESS_MAIN(tst_SignalShield)
#include "tst_SignalShield.moc"
