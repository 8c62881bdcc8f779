// The task queue under real threads: order, timed waits, and nothing lost or doubled under load.

#include "common_utilities/message_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::AbsoluteDeadline;
using quorvel::utilities::MessageQueue;
using qvtest::LogCapture;
using qvtest::PidLine;
using Clock = std::chrono::steady_clock;

TEST(MessageQueue, RefusesEveryOperationBeforeInitAndASecondInit) {
    LogCapture log;
    MessageQueue<int> queue;
    int item = 5;
    EXPECT_EQ(queue.Push(1), QV_NOT_IMPEMENTED);
    EXPECT_EQ(queue.PushFront(1), QV_NOT_IMPEMENTED);
    EXPECT_EQ(queue.Pop(&item), QV_NOT_IMPEMENTED);
    EXPECT_EQ(queue.Wait(10, &item), QV_NOT_IMPEMENTED);
    EXPECT_EQ(queue.IsEmpty(), QV_NOT_IMPEMENTED);
    EXPECT_EQ(queue.Clear(), QV_NOT_IMPEMENTED);
    EXPECT_EQ(item, 5);
    const std::string refused =
        PidLine("Condition: \"is_inited_\", return(\"QV_NOT_IMPEMENTED\")]");
    EXPECT_EQ(log.Messages(QV_LOG_ERROR), std::vector<std::string>(6, refused));

    log.Clear();
    ASSERT_EQ(queue.Init(), QV_OK);
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_EQ(queue.Init(), QV_WRONG_STATE);
    EXPECT_TRUE(log.Has(
        QV_LOG_ERROR, PidLine("Condition: \"false == is_inited_\", return(\"QV_WRONG_STATE\")]")));
    EXPECT_EQ(queue.Push(7), QV_OK);
    EXPECT_EQ(queue.Pop(&item), QV_OK);
    EXPECT_EQ(item, 7);
}

TEST(MessageQueue, DeliversFrontFirstSoPushFrontOvertakes) {
    MessageQueue<std::string> queue;
    ASSERT_EQ(queue.Init(), QV_OK);
    EXPECT_EQ(queue.IsEmpty(), 1);
    queue.Push("A");
    queue.Push("B");
    queue.PushFront("C");
    EXPECT_EQ(queue.IsEmpty(), 0);

    std::string item = "untouched";
    std::vector<std::string> order;
    while (queue.Pop(&item) == QV_OK)
        order.push_back(item);
    EXPECT_EQ(order, (std::vector<std::string>{"C", "A", "B"}));
    // Neither an empty Pop nor a Wait that runs out touches the output.
    item = "untouched";
    EXPECT_EQ(queue.Pop(&item), QV_FAILED);
    EXPECT_EQ(queue.Wait(1, &item), QV_FAILED);
    EXPECT_EQ(item, "untouched");
}

TEST(MessageQueue, TimedWaitEndsOnTimeAndZeroWaitsUntilSomethingComes) {
    MessageQueue<int> queue;
    ASSERT_EQ(queue.Init(), QV_OK);
    int item = 0;

    auto start = Clock::now();
    EXPECT_EQ(queue.Wait(100, &item), QV_FAILED);
    auto waited = Clock::now() - start;
    EXPECT_GE(waited, 99ms);
    EXPECT_LT(waited, 1500ms);

    // A negative timeout is a poll, not an error or an endless wait.
    start = Clock::now();
    EXPECT_EQ(queue.Wait(-5, &item), QV_FAILED);
    EXPECT_LT(Clock::now() - start, 500ms);

    // The clock starts before the producer does: on a loaded machine this thread may be scheduled
    // late after starting it, and the wait would look shorter than the producer's sleep.
    start = Clock::now();
    std::thread producer([&queue] {
        std::this_thread::sleep_for(200ms);
        queue.Push(42);
        std::this_thread::sleep_for(100ms);
        queue.Push(43);
    });
    EXPECT_EQ(queue.Wait(0, &item), QV_OK);
    EXPECT_EQ(item, 42);
    EXPECT_GE(Clock::now() - start, 190ms);
    // A long timeout ends as soon as an item comes, not at the deadline.
    start = Clock::now();
    EXPECT_EQ(queue.Wait(60000, &item), QV_OK);
    EXPECT_EQ(item, 43);
    EXPECT_LT(Clock::now() - start, 10s);
    producer.join();
}

TEST(MessageQueue, DeadlineCarriesNanosecondsIntoSeconds) {
    auto deadline = [](time_t sec, long nsec, long timeout_ms) {
        timespec now{};
        now.tv_sec = sec;
        now.tv_nsec = nsec;
        timespec d = AbsoluteDeadline(now, timeout_ms);
        return std::make_pair(static_cast<long long>(d.tv_sec), d.tv_nsec);
    };
    EXPECT_EQ(deadline(100, 0, 2500), std::make_pair(102LL, 500000000L));
    EXPECT_EQ(deadline(100, 600000000, 2500), std::make_pair(103LL, 100000000L));
    EXPECT_EQ(deadline(100, 500000000, 500), std::make_pair(101LL, 0L));
    EXPECT_EQ(deadline(100, 999999999, 1), std::make_pair(101LL, 999999L));
    EXPECT_EQ(deadline(100, 100000000, -200), std::make_pair(99LL, 900000000L));
    // A timeout too long for the clock saturates rather than wrapping into the past.
    auto far = deadline(1700000000, 0, LONG_MAX);
    EXPECT_GT(far.first, 1700000000LL);
    EXPECT_LT(far.second, 1000000000L);
}

TEST(MessageQueue, ClearDropsTheItemsAndTheirReferences) {
    MessageQueue<std::shared_ptr<int>> queue;
    ASSERT_EQ(queue.Init(), QV_OK);
    auto shared = std::make_shared<int>(1);
    for (int i = 0; i < 3; ++i)
        queue.Push(shared);
    EXPECT_EQ(shared.use_count(), 4);
    EXPECT_EQ(queue.Clear(), QV_OK);
    EXPECT_EQ(shared.use_count(), 1);
    EXPECT_EQ(queue.IsEmpty(), 1);

    // What is still queued when the queue goes away is released with it.
    std::weak_ptr<int> watched = shared;
    {
        MessageQueue<std::shared_ptr<int>> doomed;
        ASSERT_EQ(doomed.Init(), QV_OK);
        doomed.Push(shared);
        shared.reset();
    }
    EXPECT_TRUE(watched.expired());
}

TEST(MessageQueue, ManyProducersAndConsumersLoseAndDuplicateNothing) {
    constexpr int kProducers = 4;
    constexpr int kConsumers = 4;
    constexpr int kPerProducer = 20000;
    constexpr int kStop = -1;
    MessageQueue<int> queue;
    ASSERT_EQ(queue.Init(), QV_OK);

    std::vector<std::vector<int>> received(kConsumers);
    std::vector<std::thread> consumers;
    for (int c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&queue, &mine = received[c], c] {
            for (;;) {
                int item = 0;
                // Every way of taking an item: blocking, timed and non-blocking.
                int rc = c % 3 == 0   ? queue.Wait(0, &item)
                         : c % 3 == 1 ? queue.Wait(5, &item)
                                      : queue.Pop(&item);
                if (rc != QV_OK) {
                    if (c % 3 == 2) std::this_thread::yield();
                    continue;
                }
                if (item == kStop) return;
                mine.push_back(item);
            }
        });
    }
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                int item = p * kPerProducer + i;
                i % 5 == 0 ? queue.PushFront(item) : queue.Push(item);
            }
        });
    }
    for (auto& producer : producers)
        producer.join();
    for (int c = 0; c < kConsumers; ++c)
        queue.Push(kStop);
    for (auto& consumer : consumers)
        consumer.join();

    std::vector<int> seen(kProducers * kPerProducer, 0);
    size_t total = 0;
    for (const auto& mine : received) {
        total += mine.size();
        for (int item : mine)
            ++seen[item];
    }
    EXPECT_EQ(total, seen.size());
    int wrong = 0;
    for (int count : seen)
        wrong += count != 1;
    EXPECT_EQ(wrong, 0) << "items lost or delivered twice";
    EXPECT_EQ(queue.IsEmpty(), 1);
}

// A push wakes only a waiter that no earlier push woke. Counting that wrong loses items in the
// most ordinary way: a consumer sleeps while its item waits. Every consumer here takes exactly
// one item of a burst as large as their number, so all of them must end; the timed ones keep
// timing out around the pushes, the moment the count could go astray.
TEST(MessageQueue, EveryWaiterWakesForABurstEvenWhileOthersTimeOut) {
    constexpr int kRounds = 200;
    constexpr int kBlocking = 3;
    constexpr int kTimed = 2;
    constexpr int kConsumers = kBlocking + kTimed;
    // Shared with the consumers, so that a consumer that never wakes can be left behind.
    struct Shared {
        MessageQueue<int> queue;
        std::atomic<int> served{0};
    };
    auto shared = std::make_shared<Shared>();
    ASSERT_EQ(shared->queue.Init(), QV_OK);
    for (int round = 0; round < kRounds; ++round) {
        shared->served = 0;
        std::vector<std::thread> consumers;
        for (int c = 0; c < kConsumers; ++c) {
            const long timeout_ms = c < kBlocking ? 0 : 1;
            consumers.emplace_back([shared, timeout_ms] {
                int item = 0;
                while (shared->queue.Wait(timeout_ms, &item) != QV_OK) {
                }
                ++shared->served;
            });
        }
        if (round % 2 == 1) std::this_thread::sleep_for(2ms);  // let them all fall asleep
        for (int i = 0; i < kConsumers; ++i)
            round % 3 == 0 ? shared->queue.PushFront(i) : shared->queue.Push(i);

        const auto deadline = Clock::now() + 10s;
        while (shared->served < kConsumers && Clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        if (shared->served < kConsumers) {
            for (auto& consumer : consumers)
                consumer.detach();
            FAIL() << kConsumers - shared->served
                   << " consumer(s) slept with items queued, in round " << round;
        }
        for (auto& consumer : consumers)
            consumer.join();
        EXPECT_EQ(shared->queue.IsEmpty(), 1);
    }
}

}  // namespace
