// qvtool loop, send, timer and batch: what a person trying the event loop from two shells sees.

#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"

namespace {

using qvtest::Contains;

using namespace std::chrono_literals;
using qvtest::ChildProcess;
using qvtest::ChildResult;

std::vector<std::string> Command(std::vector<std::string> args) {
    args.insert(args.begin(), qvtest::BuildProgram("qvtool"));
    return args;
}

ChildResult Qvtool(std::vector<std::string> args) {
    return qvtest::RunProgram(Command(std::move(args)));
}

// Waits for the loop's announcement and gives its task id.
std::string LoopTask(ChildProcess& loop) {
    std::smatch match;
    const std::regex announced("task (\\d+) waiting for events");
    for (int i = 0; i < 1000; ++i) {
        std::string output = loop.OutputSoFar();
        if (std::regex_search(output, match, announced)) return match[1];
        std::this_thread::sleep_for(10ms);
    }
    return "";
}

TEST(QvtoolLoop, SendReachesALoopInAnotherProcessAndCtrlCEndsIt) {
    ChildProcess loop = ChildProcess::Run(Command({"loop"}));
    std::string task = LoopTask(loop);
    ASSERT_FALSE(task.empty()) << loop.OutputSoFar();
    for (const char* par : {"1", "-2"}) {
        ChildResult sent = Qvtool({"send", task, "300", par, "9"});
        EXPECT_EQ(0, sent.exit_code) << sent.Describe();
    }
    for (int i = 0; i < 500 && !Contains(loop.OutputSoFar(), "event 300 -2 9"); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    loop.Kill(SIGINT);
    ChildResult ended = loop.Wait();
    EXPECT_EQ(130, ended.exit_code) << ended.Describe();
    EXPECT_TRUE(Contains(ended.output, "event 300 1 9\nevent 300 -2 9\n")) << ended.output;

    // The loop is gone: its task has no loop any more; bad numbers are the command line's fault.
    EXPECT_EQ(3, Qvtool({"send", task, "300", "1", "2"}).exit_code);
    EXPECT_EQ(2, Qvtool({"send", "x", "300", "1", "2"}).exit_code);
    EXPECT_EQ(2, Qvtool({"send", "1", "300", "1"}).exit_code);
}

TEST(QvtoolLoop, TimerShowsEveryFiringWithItsLateness) {
    for (const char* kind : {"--hard", "--weak", "--thread"}) {
        ChildResult timer = Qvtool({"timer", "5", "--repeat", "3", kind});
        ASSERT_EQ(0, timer.exit_code) << kind << ": " << timer.Describe();
        EXPECT_TRUE(std::regex_search(timer.output, std::regex("#3  after [0-9.]+ ms  late [-+][0-9.]+ ms")))
            << timer.output;
        EXPECT_FALSE(Contains(timer.output, "#4")) << timer.output;
        EXPECT_TRUE(Contains(timer.output, "3 firings: lateness median")) << timer.output;
    }
    EXPECT_EQ(2, Qvtool({"timer", "5", "--hard", "--weak"}).exit_code);
    EXPECT_EQ(2, Qvtool({"timer", "-5"}).exit_code);
}

TEST(QvtoolLoop, BatchReportsEachTaskAndAFailureStopsIt) {
    ChildResult batch = Qvtool({"batch", "3", "--ms", "10"});
    ASSERT_EQ(0, batch.exit_code) << batch.Describe();
    EXPECT_TRUE(Contains(batch.output, "task 1 done\n")) << batch.output;
    EXPECT_TRUE(Contains(batch.output, "task 3 done\n")) << batch.output;
    EXPECT_TRUE(Contains(batch.output, "3 tasks done")) << batch.output;

    ChildResult failing = Qvtool({"batch", "3", "--ms", "10", "--fail", "2"});
    EXPECT_EQ(1, failing.exit_code) << failing.Describe();
    EXPECT_TRUE(Contains(failing.output, "task 2 failed with 7")) << failing.output;
    EXPECT_FALSE(Contains(failing.output, "task 3 done")) << failing.output;
}

}  // namespace
