// Working processes end to end: real children, their events at the parent's event loop, a
// failing task, stopping, and a child killed from outside.

#include "common_utilities/working_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::process::IRunnable;
using quorvel::utilities::process::Task;
using quorvel::utilities::process::WorkingProcess;
using quorvel::utilities::process::WorkingProcess_c11;

std::vector<std::string> g_events;
size_t g_expected = 0;

int Record(int type, int par1, int par2) {
    g_events.push_back(std::to_string(type) + " " + std::to_string(par1) + " " +
                       std::to_string(par2));
    if (g_events.size() == g_expected) qvhost_stop_event_loop();
    return 0;
}

void StopLoop(void*) {
    qvhost_stop_event_loop();
}

// Runs the loop until the handler has seen `count` events (or the on_error hook stops it),
// ten seconds at most.
void RunLoopUntil(size_t count, int limit_ms = 10000) {
    g_expected = count;
    static char limit[] = "limit";
    SetHardTimerEx("limit", &StopLoop, limit, limit_ms);
    ASSERT_EQ(0, qvhost_run_event_loop(&Record));
    ClearTimerEx(&StopLoop, limit);
}

template <typename Worker>
bool WaitForEnd(Worker& worker) {
    for (int i = 0; i < 1000 && !worker.TasksQueueEmpty(); ++i) std::this_thread::sleep_for(10ms);
    return worker.TasksQueueEmpty();
}

// Proves where a task ran: it leaves its process id in a file.
std::string Marker(int id) {
    return "/tmp/task-" + std::to_string(id);
}
int MarkerPid(int id) {
    int pid = 0;
    std::ifstream(Marker(id)) >> pid;
    return pid;
}
void LeaveMarker(int id) {
    std::ofstream(Marker(id)) << getpid();
}

class MarkingTask : public IRunnable {
public:
    explicit MarkingTask(int id) : id_(id) {}
    int Run() override {
        LeaveMarker(id_);
        return 1;  // not looked at
    }

private:
    int id_;
};

TEST(WorkingProcess, EachTaskRunsInTheChildAndReportsToTheParentsLoopInOrder) {
    qvtest::LogCapture log;
    qvhost_set_event_handler(&Record);
    WorkingProcess worker;
    for (int id = 1; id <= 3; ++id) worker.EnqueueTask(std::make_shared<MarkingTask>(id), 40, id);
    ASSERT_EQ(0, worker.Run());
    EXPECT_FALSE(worker.TasksQueueEmpty());  // the parent's copy waits for the child's end

    EXPECT_EQ(-1, worker.Run());
    worker.EnqueueTask(std::make_shared<MarkingTask>(9), 40, 9);
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Another process has been already running")));
    EXPECT_TRUE(log.Has(2, qvtest::PidLine("Can't add task to queue: task already forked and working")));
    EXPECT_TRUE(log.Has(3, qvtest::PidLine(">>>   EnqueueTask(task, cmd = 40, task_id = 9)   <<<\n")));

    RunLoopUntil(3);
    EXPECT_EQ((std::vector<std::string>{"212 40 1", "212 40 2", "212 40 3"}), g_events);
    ASSERT_TRUE(WaitForEnd(worker));
    for (int id = 1; id <= 3; ++id) {
        EXPECT_GT(MarkerPid(id), 0);
        EXPECT_NE(getpid(), MarkerPid(id));
    }
    EXPECT_EQ(0, MarkerPid(9));

    // Ready for the next batch; an empty one is a child that just exits.
    g_events.clear();
    ASSERT_EQ(0, worker.Run());
    int again = -1;
    for (int i = 0; i < 500 && again != 0; ++i) {
        std::this_thread::sleep_for(10ms);
        again = worker.Run();  // refused until the empty batch's child has ended
    }
    EXPECT_EQ(0, again);
}

std::atomic<int> g_error_task{0};
std::atomic<int> g_error_code{0};
std::atomic<int> g_error_calls{0};

TEST(WorkingProcess_c11, AFailingTaskEndsTheBatchAndReachesOnError) {
    qvtest::LogCapture log;
    qvhost_set_event_handler(&Record);
    WorkingProcess_c11 worker;
    worker.on_error = [](int task_id, int code) {
        g_error_task = task_id;
        g_error_code = code;
        ++g_error_calls;
        qvhost_stop_event_loop();
    };
    EXPECT_EQ(0, worker.EnqueueTask(Task([] { LeaveMarker(1); }), 3, 11));
    EXPECT_EQ(0, worker.EnqueueTask(Task([] { return 7; }), 3, 12));
    EXPECT_EQ(0, worker.EnqueueTask(Task([] { LeaveMarker(3); }), 3, 13));
    ASSERT_EQ(0, worker.Run());
    EXPECT_EQ(-1, worker.EnqueueTask(Task([] {}), 3, 14));

    RunLoopUntil(99);  // until on_error stops it
    ASSERT_EQ(1, g_error_calls.load());
    EXPECT_EQ(12, g_error_task.load());
    EXPECT_EQ(7, g_error_code.load());
    EXPECT_EQ((std::vector<std::string>{"212 3 11"}), g_events);
    EXPECT_GT(MarkerPid(1), 0);
    EXPECT_EQ(0, MarkerPid(3));
    EXPECT_TRUE(worker.TasksQueueEmpty());
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Child terminated normally with error 7")));
}

TEST(WorkingProcess_c11, StopAndAChildKilledFromOutsideLeaveTheWorkerReady) {
    qvtest::LogCapture log;
    WorkingProcess_c11 worker;
    worker.on_error = [](int, int) { ++g_error_calls; };
    EXPECT_EQ(0, worker.Stop());  // nothing runs: no signal sent

    auto sleeper = Task([] {
        LeaveMarker(1);
        sleep(30);
    });
    worker.EnqueueTask(sleeper, 1, 1);
    ASSERT_EQ(0, worker.Run());
    for (int i = 0; i < 500 && MarkerPid(1) == 0; ++i) std::this_thread::sleep_for(10ms);
    int child = MarkerPid(1);
    ASSERT_GT(child, 0);
    EXPECT_EQ(0, worker.Stop());
    EXPECT_TRUE(worker.TasksQueueEmpty());
    EXPECT_NE(0, kill(child, 0)) << "the stopped child is still there, zombie or not";

    unlink(Marker(1).c_str());
    worker.EnqueueTask(sleeper, 1, 2);
    ASSERT_EQ(0, worker.Run());
    for (int i = 0; i < 500 && MarkerPid(1) == 0; ++i) std::this_thread::sleep_for(10ms);
    child = MarkerPid(1);
    ASSERT_GT(child, 0);
    kill(child, SIGKILL);
    ASSERT_TRUE(WaitForEnd(worker));
    RunLoopUntil(99, 200);  // the limit ends it: the worker's report comes on the loop
    EXPECT_TRUE(log.Has(5, qvtest::PidLine(">>>   SignalHandler  <<<")));
    EXPECT_EQ(0, g_error_calls.load());
    EXPECT_FALSE(log.HasFragment(0, "Child terminated normally"));
    EXPECT_EQ(0, worker.EnqueueTask(sleeper, 1, 3));  // no longer running
}

}  // namespace
