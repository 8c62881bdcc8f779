// The runtime core under load: MessageQueue against the plain standard-library queue that anyone
// would write instead, in the same run, and the time a task takes from EnqueueTask to Run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "common_utilities/message_queue.h"
#include "common_utilities/working_thread.h"
#include "ratio_reporter.h"

namespace {

using quorvel::utilities::MessageQueue;
using quorvel::utilities::WorkingThread;
using quorvel::utilities::WrapTask;
using Clock = std::chrono::steady_clock;

constexpr long kItems = 1000000;
constexpr long kStop = -1;

// The yardstick: std::mutex, std::condition_variable and std::deque, done the usual way.
class StdQueue {
public:
    int Init() { return 0; }
    int Push(const long& item) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(item);
        }
        cv_.notify_one();
        return 0;
    }
    int Wait(long /*timeout_ms*/, long* item) {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return !queue_.empty(); });
        *item = queue_.front();
        queue_.pop_front();
        return 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<long> queue_;
};

// kItems items from `producers` threads to `consumers` threads that block in Wait.
template <typename Queue>
void Throughput(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    const int consumers = static_cast<int>(state.range(1));
    for (auto _ : state) {
        Queue queue;
        queue.Init();
        std::atomic<long> checksum{0};
        std::vector<std::thread> threads;
        for (int c = 0; c < consumers; ++c) {
            threads.emplace_back([&queue, &checksum] {
                long sum = 0;
                for (long item = 0;;) {
                    queue.Wait(0, &item);
                    if (item == kStop) break;
                    sum += item;
                }
                checksum += sum;
            });
        }
        std::vector<std::thread> senders;
        for (int p = 0; p < producers; ++p) {
            senders.emplace_back([&queue, p, producers] {
                for (long i = p; i < kItems; i += producers)
                    queue.Push(i);
            });
        }
        for (auto& sender : senders)
            sender.join();
        for (int c = 0; c < consumers; ++c)
            queue.Push(kStop);
        for (auto& thread : threads)
            thread.join();
        if (checksum != kItems * (kItems - 1) / 2) state.SkipWithError("items lost");
    }
    state.SetItemsProcessed(state.iterations() * kItems);
}

// From EnqueueTask to the first line of Run, on a worker that sleeps in its queue between tasks,
// as a worker waiting for the next request does. Reports the median and the 99th percentile.
void RoundTrip(benchmark::State& state) {
    const int samples = static_cast<int>(state.range(0));
    const auto pause = std::chrono::microseconds(state.range(1));
    auto* worker = new WorkingThread();
    worker->Run();
    std::vector<double> micros;
    micros.reserve(samples);
    for (auto _ : state) {
        micros.clear();
        for (int i = 0; i < samples; ++i) {
            std::atomic<bool> ran{false};
            Clock::time_point started;
            Clock::time_point enqueued = Clock::now();
            worker->EnqueueTask(WrapTask([&ran, &started] {
                started = Clock::now();
                ran.store(true, std::memory_order_release);
            }));
            while (!ran.load(std::memory_order_acquire))
                std::this_thread::yield();
            micros.push_back(std::chrono::duration<double, std::micro>(started - enqueued).count());
            if (pause.count() > 0) std::this_thread::sleep_for(pause);
        }
    }
    worker->StopAndDeleteAsync();
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    state.counters["max_us"] = micros.back();
}

void ConfigureThroughput(benchmark::internal::Benchmark* benchmark) {
    benchmark->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Repetitions(9)
        ->ReportAggregatesOnly(true);
}

}  // namespace

BENCHMARK(Throughput<MessageQueue<long>>)
    ->Name("queue_1x1/message_queue")
    ->Args({1, 1})
    ->Apply(ConfigureThroughput);
BENCHMARK(Throughput<StdQueue>)->Name("queue_1x1/std")->Args({1, 1})->Apply(ConfigureThroughput);
BENCHMARK(Throughput<MessageQueue<long>>)
    ->Name("queue_4x4/message_queue")
    ->Args({4, 4})
    ->Apply(ConfigureThroughput);
BENCHMARK(Throughput<StdQueue>)->Name("queue_4x4/std")->Args({4, 4})->Apply(ConfigureThroughput);

BENCHMARK(RoundTrip)
    ->Name("enqueue_to_run/back_to_back")
    ->Args({20000, 0})
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(RoundTrip)
    ->Name("enqueue_to_run/after_1ms_pause")
    ->Args({2000, 1000})
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

int main(int argc, char** argv) {
    return qvbench::RunAndCompare(argc, argv,
                                  {{"MessageQueue/std queue, 1 producer 1 consumer",
                                    "queue_1x1/message_queue/1/1", "queue_1x1/std/1/1", 0.0},
                                   {"MessageQueue/std queue, 4 producers 4 consumers",
                                    "queue_4x4/message_queue/4/4", "queue_4x4/std/4/4", 0.0}});
}
