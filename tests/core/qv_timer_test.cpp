// Both families of timers: the library's timer thread, and the timers that ride on the
// platform's event loop (run here on the test's thread).

#include "common_utilities/qv_timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::AbstractTimer;
using quorvel::utilities::HardTimer;
using quorvel::utilities::ITimerHandler;
using quorvel::utilities::SingleHardTimerShot;
using quorvel::utilities::SingleWeakTimerShot;
using quorvel::utilities::Timer;
using quorvel::utilities::WeakTimer;
using Clock = std::chrono::steady_clock;

// Counts calls; optionally stops its timer on the n-th, or sleeps in each.
class Counter : public ITimerHandler {
public:
    explicit Counter(int stop_at = 0, std::chrono::milliseconds busy = 0ms)
        : stop_at_(stop_at), busy_(busy) {}
    void OnTimer(Timer* timer) override {
        thread_ = std::this_thread::get_id();
        if (first_.load() == Clock::time_point()) first_ = Clock::now();
        std::this_thread::sleep_for(busy_);
        int n = ++calls_;
        if (n == stop_at_) stop_result_ = timer->Stop();
        finished_ = n;
    }
    int calls() const { return calls_; }
    int finished() const { return finished_; }
    Clock::time_point first() const { return first_; }
    std::thread::id thread() const { return thread_; }
    int stop_result() const { return stop_result_; }

private:
    int stop_at_;
    std::chrono::milliseconds busy_;
    std::atomic<int> calls_{0};
    std::atomic<int> finished_{0};
    std::atomic<int> stop_result_{1};
    std::atomic<Clock::time_point> first_{Clock::time_point()};
    std::atomic<std::thread::id> thread_{};
};

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5s) {
    for (auto end = Clock::now() + limit; Clock::now() < end;) {
        if (condition()) return true;
        std::this_thread::sleep_for(2ms);
    }
    return condition();
}

TEST(Timer, RefusesBadUseWithItsLogLines) {
    qvtest::LogCapture log;
    Timer timer;
    Counter counter;
    EXPECT_EQ(QV_INVAL, timer.Init(10, false, nullptr));
    EXPECT_EQ(QV_NOT_INITIALIZED, timer.Stop());
    ASSERT_EQ(QV_OK, timer.Init(10, false, &counter));
    EXPECT_EQ(QV_WRONG_STATE, timer.Init(10, false, &counter));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"handler\", return(\"QV_INVAL\")]")));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"handler_\", return(\"QV_NOT_INITIALIZED\")]")));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"!handler_\", return(\"QV_WRONG_STATE\")]")));

    // A one-shot timer fires once and stays in use until stopped.
    ASSERT_TRUE(WaitFor([&] { return counter.calls() == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1, counter.calls());
    EXPECT_NE(std::this_thread::get_id(), counter.thread());
    EXPECT_EQ(QV_WRONG_STATE, timer.Init(10, false, &counter));
    EXPECT_EQ(QV_OK, timer.Stop());
    EXPECT_EQ(QV_OK, timer.Init(10, false, &counter));
    EXPECT_TRUE(WaitFor([&] { return counter.calls() == 2; }));
}

TEST(Timer, ARepeatingTimerStoppedByItsHandlerFiresNoMore) {
    Timer timer;
    Counter counter(3);
    ASSERT_EQ(QV_OK, timer.Init(5, true, &counter));
    ASSERT_TRUE(WaitFor([&] { return counter.finished() == 3; }));
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(3, counter.calls());
    EXPECT_EQ(QV_OK, counter.stop_result());
}

TEST(Timer, AZeroIntervalFiresAtEveryPassWithoutSleeping) {
    Timer timer;
    Counter counter;
    ASSERT_EQ(QV_OK, timer.Init(0, true, &counter));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(QV_OK, timer.Stop());
    // A thread that slept even a millisecond per pass would manage at most 200.
    EXPECT_GT(counter.calls(), 1000);
}

TEST(Timer, ATimerAddedWhileTheThreadWaitsIsNotHeldBackByTheOldDeadline) {
    Timer slow, quick;
    Counter slow_counter, quick_counter;
    ASSERT_EQ(QV_OK, slow.Init(900, false, &slow_counter));
    std::this_thread::sleep_for(50ms);  // the thread now waits for the slow one
    Clock::time_point armed = Clock::now();
    ASSERT_EQ(QV_OK, quick.Init(20, false, &quick_counter));
    ASSERT_TRUE(WaitFor([&] { return quick_counter.calls() == 1; }));
    EXPECT_LT(quick_counter.first() - armed, 300ms);
    EXPECT_EQ(0, slow_counter.calls());
}

TEST(Timer, StopWaitsForARunningHandlerSoTheTimerMayGo) {
    Counter counter(0, 150ms);
    {
        Timer timer;
        ASSERT_EQ(QV_OK, timer.Init(0, true, &counter));
        ASSERT_TRUE(WaitFor([&] { return counter.calls() >= 1; }));
        EXPECT_EQ(QV_OK, timer.Stop());
        EXPECT_EQ(counter.calls(), counter.finished());
        // A timer destroyed while still in use leaves the list first.
        ASSERT_EQ(QV_OK, timer.Init(0, true, &counter));
        ASSERT_TRUE(WaitFor([&] { return counter.calls() >= 2; }));
    }
    int calls = counter.calls();
    EXPECT_EQ(calls, counter.finished());
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(calls, counter.calls());
}

// ---- Timers of the event loop -------------------------------------------------------------------

int NoEvents(int, int, int) {
    return 0;
}

void RunLoopFor(std::chrono::milliseconds time) {
    SingleHardTimerShot(static_cast<int>(time.count()), [] { qvhost_stop_event_loop(); });
    ASSERT_EQ(0, qvhost_run_event_loop(&NoEvents));
}

TEST(LoopTimer, ARepeatingTimerStoppedFromItsCallableIsNotArmedAgain) {
    qvhost_set_event_handler(&NoEvents);
    int calls = 0;
    HardTimer<std::function<void()>> timer;
    timer.SetCallable([&] {
        if (++calls == 3) timer.Stop();
    });
    timer.Start(5);
    EXPECT_TRUE(timer.IsRunning());
    RunLoopFor(150ms);
    EXPECT_EQ(3, calls);
    EXPECT_FALSE(timer.IsRunning());

    // An empty callable is the caller's error, as with any empty function.
    HardTimer<std::function<void()>> empty;
    empty.SetSingleShot(true);
    empty.Start(0);
    EXPECT_THROW(AbstractTimer::timerprocEx(&empty), std::bad_function_call);
}

TEST(LoopTimer, SingleShotsFireOnceInDueOrderAndCleanUpAfterThemselves) {
    qvhost_set_event_handler(&NoEvents);
    std::vector<std::string> order;
    SingleWeakTimerShot(30, [&] { order.push_back("weak 30"); });
    SingleHardTimerShot(10, [&] { order.push_back("hard 10"); });
    SingleHardTimerShot(20, [&] { order.push_back("hard 20"); });
    EXPECT_THROW(SingleHardTimerShot(10, nullptr), std::bad_function_call);
    RunLoopFor(100ms);
    // Each timer deleted itself after its call: the leak checker of the sanitizer build
    // would name any that didn't.
    EXPECT_EQ((std::vector<std::string>{"hard 10", "hard 20", "weak 30"}), order);
}

TEST(LoopTimer, ARepeatingTimerMayDeleteItselfInItsCallable) {
    qvhost_set_event_handler(&NoEvents);
    int calls = 0;
    auto* timer = new WeakTimer<std::function<void()>>();
    timer->SetCallable([&calls, timer] {
        if (++calls == 2) delete timer;
    });
    timer->Start(5);
    RunLoopFor(80ms);
    EXPECT_EQ(2, calls);
}

}  // namespace
