// The working thread as its owners use it: order of tasks, stopping with work still queued, the
// idle snapshot, and priorities.

#include "common_utilities/working_thread.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"

// Counts the library's setpriority calls: the test program's definition comes first in the
// dynamic lookup, and forwards to the C library's.
namespace {
std::atomic<int> g_setpriority_calls{0};
}

extern "C" int setpriority(__priority_which_t which, id_t who, int priority) noexcept {
    using Real = int (*)(__priority_which_t, id_t, int);
    static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "setpriority"));
    g_setpriority_calls.fetch_add(1);
    return real(which, who, priority);
}

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::IRunnable;
using quorvel::utilities::WorkingThread;
using quorvel::utilities::WrapTask;

// A latch that tasks wait on and the test opens.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    bool WaitOpen(std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, timeout, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

// What ran, in order, from whichever thread.
class Journal {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

int ThreadsOfThisProcess() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return -1;
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

pid_t ThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool ThreadAlive(pid_t tid) {
    return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
}

// A worker that the test ends with StopAndDeleteAsync and whose thread it sees end.
class WorkerTest : public ::testing::Test {
protected:
    void SetUp() override { worker_ = new WorkingThread(); }
    void TearDown() override { StopWorker(); }

    // Starts the worker and learns its thread's id.
    void Start() {
        ASSERT_EQ(worker_->Run(), 0);
        Gate known;
        worker_->EnqueueTask(WrapTask([this, &known] {
            worker_tid_ = ThreadId();
            known.Open();
        }));
        ASSERT_TRUE(known.WaitOpen());
    }
    // Asks the worker to go away and waits until its thread is gone.
    void StopWorker() {
        if (!worker_) return;
        worker_->StopAndDeleteAsync();
        worker_ = nullptr;
        ExpectThreadEnds();
    }
    void ExpectThreadEnds() {
        if (worker_tid_ == 0) return;
        EXPECT_TRUE(WaitUntil([this] { return !ThreadAlive(worker_tid_); }))
            << "the worker's thread did not end";
    }

    // Enqueues a task that says it started, then waits at the gate.
    void EnqueueBlocker(Gate& started, Gate& release, Journal& journal, const std::string& name) {
        ASSERT_EQ(worker_->EnqueueTask(WrapTask([&started, &release, &journal, name] {
            journal.Add(name);
            started.Open();
            release.WaitOpen();
        })),
                  QV_OK);
        ASSERT_TRUE(started.WaitOpen());
    }

    WorkingThread* worker_ = nullptr;
    std::atomic<pid_t> worker_tid_{0};
};

TEST_F(WorkerTest, RunsTasksOneAfterAnotherWithAFrontTaskNext) {
    Start();
    Gate started, release, done;
    Journal journal;
    EnqueueBlocker(started, release, journal, "first");
    std::atomic<pid_t> runner{0};
    auto record = [&journal, &runner](const std::string& name) {
        return WrapTask([&journal, &runner, name] {
            journal.Add(name);
            runner = ThreadId();
            return name.size();  // a result, which the wrapper drops
        });
    };
    worker_->EnqueueTask(record("A"));
    worker_->EnqueueTask(std::shared_ptr<IRunnable>());  // only wakes the thread
    worker_->EnqueueTask(record("B"));
    worker_->EnqueueTaskFront(record("C"));
    worker_->EnqueueTask(WrapTask([&done] { done.Open(); }));
    EXPECT_FALSE(worker_->TasksQueueEmpty());
    release.Open();

    ASSERT_TRUE(done.WaitOpen());
    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"first", "C", "A", "B"}));
    EXPECT_EQ(runner.load(), worker_tid_.load());
    EXPECT_NE(runner.load(), ThreadId());
}

TEST_F(WorkerTest, RunStartsOneThreadAndRefusesTasksBeforeIt) {
    qvtest::LogCapture log;
    EXPECT_EQ(worker_->EnqueueTask(WrapTask([] {})), QV_NOT_IMPEMENTED);
    EXPECT_TRUE(worker_->TasksQueueEmpty());
    EXPECT_TRUE(worker_->isIdle());
    EXPECT_FALSE(worker_->IsRunning());
    EXPECT_TRUE(log.HasFragment(QV_LOG_ERROR, "return(\"QV_NOT_IMPEMENTED\")]"));

    ASSERT_EQ(worker_->Run(), 0);
    const int threads = ThreadsOfThisProcess();
    // Even straight after the first, a second Run must not start another thread.
    EXPECT_EQ(worker_->Run(), 0);
    EXPECT_TRUE(worker_->IsRunning());
    EXPECT_EQ(ThreadsOfThisProcess(), threads);

    Gate done;
    EXPECT_EQ(worker_->EnqueueTask(WrapTask([this, &done] {
        worker_tid_ = ThreadId();
        done.Open();
    })),
              QV_OK);
    EXPECT_TRUE(done.WaitOpen());
    EXPECT_EQ(ThreadsOfThisProcess(), threads);
}

TEST_F(WorkerTest, StopWithTasksWaitingDropsThemAndReleasesTheirReferences) {
    Start();
    Gate started, release;
    Journal journal;
    EnqueueBlocker(started, release, journal, "running");

    // The waiting tasks hold a token; its destructor says on which thread it was let go.
    struct Token {
        explicit Token(std::atomic<pid_t>* released) : released_on(released) {}
        ~Token() { *released_on = ThreadId(); }
        std::atomic<pid_t>* released_on;
    };
    std::atomic<pid_t> released_on{0};
    auto token = std::make_shared<Token>(&released_on);
    std::weak_ptr<Token> watched = token;
    std::atomic<int> ran{0};
    for (int i = 0; i < 3; ++i)
        worker_->EnqueueTask(WrapTask([token, &ran] { ++ran; }));
    token.reset();

    worker_->StopAndDeleteAsync();
    worker_ = nullptr;
    EXPECT_FALSE(watched.expired()) << "released before the running task returned";
    release.Open();
    ASSERT_TRUE(WaitUntil([&] { return watched.expired(); })) << "queued tasks were not released";
    ExpectThreadEnds();
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(journal.Entries(), std::vector<std::string>{"running"});
    // The object went away on its own thread, taking its queue with it.
    EXPECT_EQ(released_on.load(), worker_tid_.load());
}

TEST(WorkingThread, StopRightAfterWorkIsSafeEveryTime) {
    // The thread may finish its task and delete itself while the stopper is still inside the
    // queue; done often enough, a wrong order shows under the sanitizers.
    auto token = std::make_shared<int>(0);
    std::atomic<int> ran{0};
    for (int i = 0; i < 200; ++i) {
        auto* worker = new WorkingThread();
        ASSERT_EQ(worker->Run(), 0);
        worker->EnqueueTask(WrapTask([token, &ran] {
            ++ran;
            std::this_thread::sleep_for(100us);
        }));
        // Most often the stop comes while the task runs, sometimes before or after.
        std::this_thread::sleep_for(std::chrono::microseconds(i % 4 * 40));
        worker->StopAndDeleteAsync();
    }
    // Every worker went away and let go of its tasks, run or not.
    EXPECT_TRUE(WaitUntil([&token] { return token.use_count() == 1; }));
    EXPECT_LE(ran.load(), 200);
}

TEST(WorkingThread, AStopSurvivesWhatTheRunningTaskDoesToTheQueue) {
    // What the running task does once the stop is asked for (from outside, or by itself first).
    struct Case {
        const char* name;
        bool task_stops_itself;
        std::function<void(WorkingThread&, const std::shared_ptr<IRunnable>&)> then;
    };
    const std::vector<Case> cases = {
        {"clears the queue", false,
         [](WorkingThread& self, const auto&) { self.ClearQueueTasks(); }},
        {"pushes to the front", false,
         [](WorkingThread& self, const auto& late) { self.EnqueueTaskFront(late); }},
        {"clears and refills the queue", false,
         [](WorkingThread& self, const auto& late) {
             self.ClearQueueTasks();
             self.EnqueueTaskFront(late);
             self.EnqueueTask(late);
         }},
        {"stops itself, then clears the queue", true,
         [](WorkingThread& self, const auto&) { self.ClearQueueTasks(); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::atomic<int> late_runs{0};
        auto late = WrapTask([&late_runs] { ++late_runs; });
        std::weak_ptr<IRunnable> late_watch = late;
        std::atomic<pid_t> tid{0};
        Gate started, go;
        auto* worker = new WorkingThread();
        ASSERT_EQ(worker->Run(), 0);
        worker->EnqueueTask(WrapTask([&, worker, late = std::move(late)] {
            tid = ThreadId();
            started.Open();
            go.WaitOpen();  // until the test is done with the worker
            if (c.task_stops_itself) worker->StopAndDeleteAsync();
            c.then(*worker, late);
        }));
        worker->EnqueueTask(WrapTask([&late_runs] { ++late_runs; }));
        ASSERT_TRUE(started.WaitOpen());
        if (!c.task_stops_itself) worker->StopAndDeleteAsync();
        go.Open();
        EXPECT_TRUE(WaitUntil([&] { return !ThreadAlive(tid); }, 3s)) << "the thread never ended";
        // Deleted with its queue: nothing holds the late task any more, and it never ran.
        EXPECT_TRUE(WaitUntil([&] { return late_watch.expired(); }, 3s));
        EXPECT_EQ(late_runs.load(), 0);
    }
}

TEST_F(WorkerTest, IdleMeansNothingQueuedAndTheThreadBackAtTheQueue) {
    Start();
    ASSERT_TRUE(WaitUntil([this] { return worker_->isIdle(); }));

    Gate started, release;
    Journal journal;
    EnqueueBlocker(started, release, journal, "busy");
    EXPECT_FALSE(worker_->isIdle());  // a task runs
    Gate second_done;
    worker_->EnqueueTask(WrapTask([&second_done] { second_done.Open(); }));
    EXPECT_FALSE(worker_->isIdle());  // and one waits
    EXPECT_FALSE(worker_->TasksQueueEmpty());

    release.Open();
    ASSERT_TRUE(second_done.WaitOpen());
    EXPECT_TRUE(WaitUntil([this] { return worker_->isIdle(); }));
    EXPECT_TRUE(worker_->TasksQueueEmpty());
}

TEST_F(WorkerTest, ClearDropsWhatWaitsButNotWhatRuns) {
    Start();
    Gate started, release, done;
    Journal journal;
    EnqueueBlocker(started, release, journal, "running");
    worker_->EnqueueTask(WrapTask([&journal] { journal.Add("dropped"); }));
    EXPECT_EQ(worker_->ClearQueueTasks(), QV_OK);
    EXPECT_TRUE(worker_->TasksQueueEmpty());
    worker_->EnqueueTask(WrapTask([&journal, &done] {
        journal.Add("after");
        done.Open();
    }));
    release.Open();
    ASSERT_TRUE(done.WaitOpen());
    EXPECT_EQ(journal.Entries(), (std::vector<std::string>{"running", "after"}));
}

TEST_F(WorkerTest, LowPriorityReachesOnlyTheThreadItIsMeantFor) {
    Start();
    worker_->SetLowPriority();
    const int my_policy = sched_getscheduler(0);
    const int my_nice = getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId()));

    std::atomic<int> worker_policy{-1};
    std::atomic<int> worker_nice{-100};
    std::atomic<int> calls_for_same_value{-1};
    Gate done;
    worker_->EnqueueTask(WrapTask([&] {
        worker_policy = sched_getscheduler(0);
        WorkingThread::SetMeLowPriority(7);
        worker_nice = getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId()));
        int before = g_setpriority_calls.load();
        WorkingThread::SetMeLowPriority(7);  // already so: no system call
        calls_for_same_value = g_setpriority_calls.load() - before;
        done.Open();
    }));
    ASSERT_TRUE(done.WaitOpen());
    EXPECT_EQ(worker_policy.load(), 3);
    EXPECT_EQ(worker_nice.load(), 7);
    EXPECT_EQ(calls_for_same_value.load(), 0);
    EXPECT_GT(g_setpriority_calls.load(), 0);
    EXPECT_EQ(sched_getscheduler(0), my_policy);
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(ThreadId())), my_nice);
}

TEST(WorkingThread, StopBeforeRunDeletesAtOnceAndLowPriorityWithoutThreadOnlyLogs) {
    qvtest::LogCapture log;
    auto* idle_worker = new WorkingThread();
    idle_worker->SetLowPriority();
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, qvtest::PidLine("Failed to set SCHED_IDLE priority")));
    idle_worker->StopAndDeleteAsync();  // the leak checker tells if it wasn't deleted
}

}  // namespace
