// qvtool timer: the library's timers at work, each firing with its lateness.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/qv_timer.h"
#include "event_loop_run.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

using Clock = std::chrono::steady_clock;
using quorvel::utilities::HardTimer;
using quorvel::utilities::ITimerHandler;
using quorvel::utilities::Timer;
using quorvel::utilities::WeakTimer;

constexpr long long kMaxRepeat = 1000000;

// Each firing against the one before (or the start): a period counts from the last firing.
class FiringLog {
public:
    FiringLog(int ms, long long count) : ms_(ms), count_(count), last_(Clock::now()) {}

    // True when that was the last firing wanted.
    bool Fired() {
        std::lock_guard<std::mutex> lock(mutex_);
        Clock::time_point now = Clock::now();
        double elapsed = std::chrono::duration<double, std::milli>(now - last_).count();
        last_ = now;
        lateness_.push_back(elapsed - ms_);
        std::printf("#%zu  after %.3f ms  late %+.3f ms\n", lateness_.size(), elapsed,
                    elapsed - ms_);
        std::fflush(stdout);
        return static_cast<long long>(lateness_.size()) >= count_;
    }

    void PrintSummary() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (lateness_.empty()) return;
        std::vector<double> sorted = lateness_;
        std::sort(sorted.begin(), sorted.end());
        auto at = [&](double share) {
            return sorted[std::min(sorted.size() - 1, static_cast<size_t>(share * sorted.size()))];
        };
        std::printf("%zu firings: lateness median %+.3f ms, 99th percentile %+.3f ms, worst %+.3f ms\n",
                    sorted.size(), at(0.5), at(0.99), sorted.back());
    }

private:
    std::mutex mutex_;
    int ms_;
    long long count_;
    Clock::time_point last_;
    std::vector<double> lateness_;
};

int NoEvents(int, int, int) {
    return 0;
}

// On the library's own timer thread; the loop of the main thread only waits.
class ThreadFirings : public ITimerHandler {
public:
    explicit ThreadFirings(FiringLog& log) : log_(log) {}
    void OnTimer(Timer* timer) override {
        if (!log_.Fired()) return;
        timer->Stop();
        qvhost_stop_event_loop();
    }

private:
    FiringLog& log_;
};

template <typename LoopTimer>
bool RunLoopTimer(int ms, FiringLog& log) {
    LoopTimer timer;
    timer.SetCallable([&] {
        if (!log.Fired()) return;
        timer.Stop();
        qvhost_stop_event_loop();
    });
    qvhost_set_event_handler(&NoEvents);
    timer.Start(ms);
    return RunEventLoop(&NoEvents);
}

bool RunThreadTimer(int ms, long long repeat, FiringLog& log) {
    ThreadFirings handler(log);
    Timer timer;
    qvhost_set_event_handler(&NoEvents);
    if (timer.Init(ms, repeat > 1, &handler) != QV_OK) throw Failure(kFailed, "the timer didn't start");
    return RunEventLoop(&NoEvents);  // a timer still in use stops as it goes
}

int RunTimer(Args& args) {
    std::optional<std::string> repeat_text = args.Option("--repeat");
    bool hard = args.Flag("--hard");
    bool weak = args.Flag("--weak");
    bool thread = args.Flag("--thread");
    std::string ms_text = args.Next("MS");
    args.Done();
    if (hard + weak + thread > 1) throw Failure(kUsage, "choose one of --hard, --weak, --thread");
    long long ms = ParseInteger(ms_text, "MS");
    if (ms < 0 || ms > 86400000) throw Failure(kUsage, "MS must be between 0 and 86400000");
    long long repeat = repeat_text ? ParseInteger(*repeat_text, "--repeat") : 1;
    if (repeat < 1 || repeat > kMaxRepeat) {
        throw Failure(kUsage, "--repeat must be between 1 and " + std::to_string(kMaxRepeat));
    }
    FiringLog log(static_cast<int>(ms), repeat);
    bool interrupted;
    if (thread) {
        interrupted = RunThreadTimer(static_cast<int>(ms), repeat, log);
    } else if (weak) {
        interrupted = RunLoopTimer<WeakTimer<std::function<void()>>>(static_cast<int>(ms), log);
    } else {
        interrupted = RunLoopTimer<HardTimer<std::function<void()>>>(static_cast<int>(ms), log);
    }
    log.PrintSummary();
    return interrupted ? kInterrupted : kOk;
}

const bool registered = Register(
    {"timer", "run a timer and show each firing with its lateness",
     "usage: qvtool timer MS [--repeat N] [--hard | --weak | --thread]\n"
     "Fires a timer every MS milliseconds, N times (default 1), and prints each firing:\n"
     "the time since the one before (or the start) and how much later than MS that was.\n"
     "Ends with the median, 99th percentile and worst lateness.\n"
     "  --hard    a hard timer of the application's event loop (the default)\n"
     "  --weak    a weak timer of the event loop, which may wait while the loop is busy\n"
     "  --thread  the library's own timer thread\n"
     "Ctrl-C ends early (exit code 130).\n",
     RunTimer});

}  // namespace
}  // namespace qvtool
