// qvtool batch: a batch of tasks in a working process, reported to this process's event loop.

#include <unistd.h>

#include <atomic>
#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/working_process.h"
#include "event_loop_run.h"
#include "moorglass_host.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::utilities::process::kTaskDoneEvent;
using quorvel::utilities::process::Task;
using quorvel::utilities::process::WorkingProcess_c11;

constexpr long long kMaxTasks = 100000;
constexpr int kBatchCmd = 1;
// How often the parent looks whether the child has gone without reporting everything.
constexpr int kCheckMs = 100;

struct BatchState {
    long long total = 0;
    long long done = 0;
    std::atomic<int> failed_task{0};
    std::atomic<int> failed_code{0};
    WorkingProcess_c11* worker = nullptr;
    Progress* progress = nullptr;
    int idle_checks = 0;
};
BatchState g_batch;

int OnEvent(int type, int cmd, int task_id) {
    if (type != kTaskDoneEvent || cmd != kBatchCmd) return 0;
    ++g_batch.done;
    g_batch.idle_checks = 0;
    std::cout << "task " << task_id << " done" << std::endl;
    g_batch.progress->Update(static_cast<uint64_t>(g_batch.done));
    if (g_batch.done >= g_batch.total) qvhost_stop_event_loop();
    return 0;
}

// The child's end without all its events (killed, say): two looks in a row with the worker's
// queue gone, so that events already on their way are counted first.
void CheckChild(void*) {
    if (g_batch.worker->TasksQueueEmpty() && ++g_batch.idle_checks >= 2) {
        qvhost_stop_event_loop();
        return;
    }
    SetHardTimerEx("batch-check", &CheckChild, nullptr, kCheckMs);
}

int RunBatch(Args& args) {
    std::optional<std::string> ms_text = args.Option("--ms");
    std::optional<std::string> fail_text = args.Option("--fail");
    std::string count_text = args.Next("N");
    args.Done();
    long long count = ParseInteger(count_text, "N");
    if (count < 1 || count > kMaxTasks) {
        throw Failure(kUsage, "N must be between 1 and " + std::to_string(kMaxTasks));
    }
    long long ms = ms_text ? ParseInteger(*ms_text, "--ms") : 200;
    if (ms < 0 || ms > 3600000) throw Failure(kUsage, "--ms must be between 0 and 3600000");
    long long fail = fail_text ? ParseInteger(*fail_text, "--fail") : 0;
    if (fail < 0 || fail > count) throw Failure(kUsage, "--fail must name one of the N tasks");

    WorkingProcess_c11 worker;
    // In the SIGCHLD handler: only note it and stop the loop.
    worker.on_error = [](int task_id, int code) {
        g_batch.failed_task = task_id;
        g_batch.failed_code = code;
        qvhost_stop_event_loop();
    };
    for (long long id = 1; id <= count; ++id) {
        int code = id == fail ? 7 : 0;
        worker.EnqueueTask(Task([ms, code] {
                               ::usleep(static_cast<useconds_t>(ms * 1000));
                               return code;
                           }),
                           kBatchCmd, static_cast<int>(id));
    }
    Progress progress("tasks", static_cast<uint64_t>(count));
    g_batch.total = count;
    g_batch.worker = &worker;
    g_batch.progress = &progress;
    qvhost_set_event_handler(&OnEvent);
    if (worker.Run() != 0) throw Failure(kFailed, "the working process didn't start");
    SetHardTimerEx("batch-check", &CheckChild, nullptr, kCheckMs);
    bool interrupted = RunEventLoop(&OnEvent);
    progress.Finish();
    if (interrupted) return kInterrupted;
    if (g_batch.failed_task != 0) {
        throw Failure(kFailed, "task " + std::to_string(g_batch.failed_task.load()) +
                                   " failed with " + std::to_string(g_batch.failed_code.load()) +
                                   "; the rest didn't run");
    }
    if (g_batch.done < count) {
        throw Failure(kFailed, "the working process ended after " +
                                   std::to_string(g_batch.done) + " of " + count_text + " tasks");
    }
    std::cout << count << " tasks done" << std::endl;
    return kOk;
}

const bool registered = Register(
    {"batch", "run N tasks in a working process and show the parent's events",
     "usage: qvtool batch N [--ms MS] [--fail K]\n"
     "Runs N tasks, each sleeping MS milliseconds (default 200), one after the other in a\n"
     "forked working process. Each finished task reaches this process's event loop as event\n"
     "212, printed as \"task ID done\", with a progress bar. --fail K makes task K return 7:\n"
     "the batch stops there and the command exits with 1. Ctrl-C: 130 (the child is killed).\n",
     RunBatch});

}  // namespace
}  // namespace qvtool
