// qvtool status, bt, http --parallel and time, as a person uses them.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "child_process.h"
#include "common_utilities/net_time.h"
#include "moorglass_host.h"
#include "private_network.h"
#include "server_process.h"

namespace {

using qvtest::ChildResult;
using qvtest::Contains;
using qvtest::Qvtool;

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

TEST(QvtoolServices, StatusPublishesShowsAndWatches) {
    ChildResult empty = Qvtool({"status"});
    EXPECT_TRUE(Contains(empty.output, "no service has published a status")) << empty.output;

    const std::string me = std::to_string(getpid());
    ChildResult set = Qvtool({"status", "set", "@QVCloud", "--pid", me, "--downloading", "--totals",
                              "3,10,0,0", "--file", "a,Book A", "--file", "b,Book B",
                              "--current", "b,Book B,,5", "--custom", "syncing"});
    ASSERT_TRUE(set.Succeeded()) << set.Describe();
    EXPECT_TRUE(Contains(set.output, "indicator 2 (downloading)")) << set.output;
    EXPECT_EQ(2, qvhost_tarvey_status());

    qvtest::ChildProcess watch = qvtest::ChildProcess::Run({qvtest::BuildProgram("qvtool"), "status", "--watch"});
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_TRUE(Qvtool({"status", "set", "@QVCloud", "--pid", me, "--error", "5"}).Succeeded());
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    watch.Kill(SIGINT);
    ChildResult watched = watch.Wait();
    EXPECT_EQ(130, watched.exit_code) << watched.Describe();
    EXPECT_TRUE(Contains(watched.output, "indicator 2 (downloading)")) << watched.output;
    EXPECT_TRUE(Contains(watched.output, "indicator 3 (error 5)")) << watched.output;

    ChildResult shown = Qvtool({"status"});
    EXPECT_TRUE(Contains(shown.output, "@QVCloud")) << shown.output;
    EXPECT_EQ(1u, Count(shown.output, "@QVCloud")) << "a publication replaces the record";

    EXPECT_EQ(2, Qvtool({"status", "set", "@x", "--totals", "1,2"}).exit_code);
    EXPECT_EQ(2, Qvtool({"status", "set", "@x", "--downloading", "--stopped"}).exit_code);
    EXPECT_EQ(2, Qvtool({"status", "set", ""}).exit_code);
    EXPECT_EQ(3, Qvtool({"status", "set", "@x", "--file", "a", "--current", "b"}).exit_code);
}

TEST(QvtoolServices, BluetoothList) {
    ChildResult added = Qvtool({"bt", "add", "/mnt/ext1/a.epub", "phone", "--size", "1000"});
    ASSERT_TRUE(added.Succeeded()) << added.Describe();
    EXPECT_EQ("1\n", added.output);
    ASSERT_TRUE(Qvtool({"bt", "add", "/mnt/ext1/b.epub", "phone"}).Succeeded());
    EXPECT_EQ("2\n", Qvtool({"bt", "status", "1", "2"}).output);
    ASSERT_TRUE(Qvtool({"bt", "progress", "/mnt/ext1/a.epub", "phone", "1000", "300"}).Succeeded());
    ChildResult pending = Qvtool({"bt", "list", "--pending"});
    EXPECT_TRUE(Contains(pending.output, "/mnt/ext1/b.epub")) << pending.output;
    EXPECT_FALSE(Contains(pending.output, "/mnt/ext1/a.epub")) << pending.output;
    ASSERT_TRUE(Qvtool({"bt", "rm", "2"}).Succeeded());
    ChildResult list = Qvtool({"bt", "list"});
    EXPECT_TRUE(Contains(list.output, "/mnt/ext1/a.epub  phone")) << list.output;
    EXPECT_TRUE(Contains(list.output, "1000   300")) << list.output;
    EXPECT_FALSE(Contains(list.output, "b.epub")) << list.output;
    EXPECT_EQ(3, Qvtool({"bt", "rm", "2"}).exit_code);
    EXPECT_EQ(3, Qvtool({"bt", "status", "7"}).exit_code);
    EXPECT_EQ(1, Qvtool({"bt", "list", "--db", "/nonexistent/list"}).exit_code);
}

TEST(QvtoolServices, ParallelRequests) {
    qvtest::HttpTestServer server({"--threads", "64"});
    ChildResult ok = Qvtool({"http", "--parallel", server.Url("/bytes/100"),
                             server.Url("/redirect/2"), "--count", "20"});
    ASSERT_TRUE(ok.Succeeded()) << ok.Describe();
    EXPECT_EQ(20u, Count(ok.output, "/bytes/100  status 200  100 bytes"));
    EXPECT_EQ(20u, Count(ok.output, "/redirect/2  status 200  6 bytes"));
    EXPECT_TRUE(Contains(ok.output, "40 of 40 finished, 0 failed")) << ok.output;

    std::string closed = "http://127.0.0.1:" + std::to_string(qvtest::ClosedPort()) + "/";
    ChildResult failed = Qvtool({"http", "--parallel", server.Url("/status/404"), closed});
    EXPECT_EQ(1, failed.exit_code) << failed.Describe();
    EXPECT_TRUE(Contains(failed.output, "status 404")) << failed.output;
    EXPECT_TRUE(Contains(failed.output, "(curl code 7)")) << failed.output;

    EXPECT_EQ(2, Qvtool({"http", "--parallel"}).exit_code);
    qvhost_set_network_up(0);
    EXPECT_EQ(4, Qvtool({"http", "--parallel", server.Url("/bytes/1")}).exit_code);
    qvhost_set_network_up(1);
}

TEST(QvtoolServices, TimeDelta) {
    std::vector<std::string> names = quorvel::utilities::NetTimeWebHosts();
    names.push_back(quorvel::utilities::kNtpPoolHost);
    qvtest::PrivateNetwork network(names);
    EXPECT_EQ(4, Qvtool({"time"}).exit_code) << "nobody answers";
    {
        qvtest::ServerProcess server({qvtest::BuildProgram("test_time_server"), "--offset", "120.3"});
        ChildResult any = Qvtool({"time"});
        ASSERT_TRUE(any.Succeeded()) << any.Describe();
        EXPECT_TRUE(Contains(any.output, "delta +120 s")) << any.output;
        ChildResult http = Qvtool({"time", "--http", "www.kernel.org"});
        EXPECT_TRUE(Contains(http.output, "delta +12")) << http.output;
        EXPECT_EQ(2, Qvtool({"time", "--ntp", "a", "--http", "b"}).exit_code);
    }
    qvtest::ServerProcess server(
        {qvtest::BuildProgram("test_time_server"), "--offset", "-30.2", "--ntp-reply", "leap"});
    EXPECT_EQ(4, Qvtool({"time", "--ntp", "127.0.0.1"}).exit_code);
    ChildResult fallback = Qvtool({"time"});
    EXPECT_TRUE(Contains(fallback.output, "delta -30 s") || Contains(fallback.output, "delta -31 s"))
        << fallback.output;
}

}  // namespace
