#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

using namespace platform;

namespace {

double Seconds(auto fn)
{
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

struct Rate {
    explicit Rate(double r) { SetClockRate(r); }
    ~Rate() { SetClockRate(1.0); }
};

}  // namespace

TEST(Platform, SleepsAndTimedWaitsFollowTheClockRate)
{
    const EventHandle h = MakeEvent();
    Semaphore sem;
    const uint32_t dwBefore = Ticks();
    {
        const Rate rate(1000);
        const uint32_t dwStart = Ticks();
        EXPECT_LT(Seconds([] { SleepMs(20000); }), 5);
        EXPECT_LT(Seconds([&] { EXPECT_EQ(WaitEvent(h, 20000), WAIT_TIMED_OUT); }), 5);
        EXPECT_LT(Seconds([&] { EXPECT_EQ(sem.Wait(20000), WAIT_TIMED_OUT); }), 5);
        EXPECT_GE(Ticks() - dwStart, 60000u);
    }
    EXPECT_GE(Ticks() - dwBefore, 60000u);  // no jump back with the rate
    EXPECT_GE(Seconds([] { SleepMs(30); }), 0.029);
    EXPECT_GE(Seconds([&] { WaitEvent(h, 30); }), 0.029);
    FreeEvent(h);
}

TEST(Platform, EventsResetThemselvesAndTheSemaphoreHoldsOne)
{
    const EventHandle h = MakeEvent();
    EXPECT_EQ(WaitEvent(h, 0), WAIT_TIMED_OUT);
    SignalEvent(h);
    SignalEvent(h);
    EXPECT_EQ(WaitEvent(h, WAIT_FOREVER), WAIT_SIGNALLED);
    EXPECT_EQ(WaitEvent(h, 0), WAIT_TIMED_OUT);
    FreeEvent(h);

    Semaphore sem;
    EXPECT_TRUE(sem.Release());
    EXPECT_FALSE(sem.Release());
    EXPECT_EQ(sem.Wait(0), WAIT_SIGNALLED);
    EXPECT_EQ(sem.Wait(0), WAIT_TIMED_OUT);
}

TEST(Platform, ThreadIsWaitedForAndMayStartAgain)
{
    struct Job {
        EventHandle go = MakeEvent();
        std::atomic<int> runs{ 0 };
        ~Job() { FreeEvent(go); }
    } job;
    const auto fn = [](void* p) {
        auto& j = *static_cast<Job*>(p);
        WaitEvent(j.go, WAIT_FOREVER);
        ++j.runs;
    };
    Thread t;
    EXPECT_FALSE(t.Started());
    EXPECT_EQ(t.Wait(0), WAIT_SIGNALLED);
    ASSERT_TRUE(t.Start(fn, &job));
    EXPECT_EQ(t.Wait(10), WAIT_TIMED_OUT);
    SignalEvent(job.go);
    EXPECT_EQ(t.Wait(WAIT_FOREVER), WAIT_SIGNALLED);
    EXPECT_EQ(t.Wait(0), WAIT_SIGNALLED);
    EXPECT_TRUE(t.Started());
    EXPECT_EQ(job.runs, 1);
    ASSERT_TRUE(t.Start(fn, &job));
    SignalEvent(job.go);
    ASSERT_TRUE(t.Start(fn, &job));  // waits for the one before
    EXPECT_EQ(job.runs, 2);
    SignalEvent(job.go);
}

TEST(Platform, CriticalSectionKeepsOthersOutAndItsOwnerIn)
{
    CriticalSection cs;
    struct Work {
        CriticalSection& cs;
        int n = 0;
    } work{ cs };
    const auto fn = [](void* p) {
        auto& w = *static_cast<Work*>(p);
        for (int i = 0; i < 20000; ++i) {
            const Lock outer(w.cs);
            [&w] {
                const Lock inner(w.cs);
                ++w.n;
            }();
        }
    };
    Thread a, b;
    ASSERT_TRUE(a.Start(fn, &work));
    ASSERT_TRUE(b.Start(fn, &work));
    a.Wait(WAIT_FOREVER);
    b.Wait(WAIT_FOREVER);
    EXPECT_EQ(work.n, 40000);
}
