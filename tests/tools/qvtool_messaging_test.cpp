// qvtool msg, shm and signin: what a person trying messages, shared memory and the browser
// sign-in from two shells sees.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "moorglass.h"
#include "server_process.h"

namespace {

using namespace std::chrono_literals;
using qvtest::ChildProcess;
using qvtest::ChildResult;
using qvtest::Contains;
using qvtest::Qvtool;

bool WaitForOutput(const ChildProcess& child, const std::string& text) {
    for (int i = 0; i < 1000 && !Contains(child.OutputSoFar(), text); ++i)
        std::this_thread::sleep_for(10ms);
    return Contains(child.OutputSoFar(), text);
}

TEST(QvtoolMessaging, SendGetsTheServersEchoAndCtrlCEndsTheServer) {
    ChildProcess server = ChildProcess::Run(
        {qvtest::BuildProgram("qvtool"), "msg", "serve", "box", "--abstract", "--echo"});
    ASSERT_TRUE(WaitForOutput(server, "serving box")) << server.OutputSoFar();

    ChildResult sent = Qvtool({"msg", "send", "box", "hello there", "--abstract", "--wait", "3000"});
    EXPECT_EQ(0, sent.exit_code) << sent.Describe();
    EXPECT_TRUE(Contains(sent.output, "answer 11 bytes: hello there")) << sent.output;
    server.Kill(SIGINT);
    ChildResult ended = server.Wait();
    EXPECT_EQ(130, ended.exit_code) << ended.Describe();
    EXPECT_TRUE(Contains(ended.output, "message 11 bytes: hello there")) << ended.output;

    // A name in the file system; then nobody there; then a bad wait.
    ChildProcess once = ChildProcess::Run(
        {qvtest::BuildProgram("qvtool"), "msg", "serve", "/tmp/box", "--count", "1"});
    ASSERT_TRUE(WaitForOutput(once, "serving /tmp/box"));
    EXPECT_EQ(0, Qvtool({"msg", "send", "/tmp/box", "x"}).exit_code);
    EXPECT_EQ(0, once.Wait().exit_code);
    EXPECT_EQ(3, Qvtool({"msg", "send", "box", "x", "--abstract"}).exit_code);
    EXPECT_EQ(2, Qvtool({"msg", "send", "box", "x", "--wait", "soon"}).exit_code);
}

TEST(QvtoolMessaging, SharedMemorySegmentOutlivesEachCommand) {
    EXPECT_EQ(0, Qvtool({"shm", "create", "/area", "64"}).exit_code);
    EXPECT_EQ(0, Qvtool({"shm", "write", "/area", "first words"}).exit_code);
    ChildResult read = Qvtool({"shm", "read", "/area"});
    EXPECT_EQ("size 64\nfirst words\n", read.output);

    ChildResult grown = Qvtool({"shm", "grow", "/area", "8000"});
    EXPECT_TRUE(Contains(grown.output, "/area: 64 -> 8000 bytes")) << grown.Describe();
    EXPECT_EQ(0, Qvtool({"shm", "write", "/area", "deep", "--offset", "7000"}).exit_code);
    EXPECT_EQ("size 8000\ndeep\n", Qvtool({"shm", "read", "/area", "--offset", "7000"}).output);
    // The earlier text survived the growth, and the attach of every command.
    EXPECT_EQ("size 8000\nfirst words\n", Qvtool({"shm", "read", "/area"}).output);

    EXPECT_EQ(2, Qvtool({"shm", "write", "/area", "x", "--offset", "9000"}).exit_code);
    EXPECT_EQ(2, Qvtool({"shm", "create", "no-slash", "8"}).exit_code);
    EXPECT_EQ(0, Qvtool({"shm", "remove", "/area"}).exit_code);
    EXPECT_EQ(3, Qvtool({"shm", "read", "/area"}).exit_code);
    ChildResult random = Qvtool({"shm", "create", "--random", "8"});
    EXPECT_EQ(0, random.exit_code) << random.Describe();
    EXPECT_TRUE(Contains(random.output, "created /")) << random.output;
}

TEST(QvtoolMessaging, SignInPrintsWhatTheBrowserReports) {
    qvtest::HttpTestServer server;
    std::string url = server.Url("/signin?do=text%20welcome%7Cnotice%7Ccomplete");
    ChildResult signin = Qvtool({"signin", url, "--id", "tool"});
    EXPECT_EQ(0, signin.exit_code) << signin.Describe();
    EXPECT_TRUE(Contains(signin.output, "text: welcome\nnotice\ncomplete\n")) << signin.output;
    int browser = FindTaskByAppName("/zelgrot/bin/browser.app");
    EXPECT_NE(-1, browser);  // completion leaves the browser open
    if (browser != -1) CloseTask(browser, -1, 1);
}

}  // namespace
