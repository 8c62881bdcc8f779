// qvtool config as a person and a script use it: values, exit codes, and the watch.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"

namespace {

using qvtest::Qvtool;
using qvtest::Contains;

using namespace std::chrono_literals;
using qvtest::ChildProcess;
using qvtest::ChildResult;

const std::string kFile = "/mnt/ext1/system/config/tool.cfg";

std::string FileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Whether the process holds an inotify descriptor, that is, watches.
bool Watching(pid_t pid) {
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* fds = opendir(dir.c_str());
    if (!fds) return false;
    bool found = false;
    while (dirent* entry = readdir(fds)) {
        char target[256] = {};
        std::string link = dir + "/" + entry->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target) == "anon_inode:inotify") {
            found = true;
        }
    }
    closedir(fds);
    return found;
}

TEST(QvtoolConfig, SetGetDeleteAndTheirExitCodes) {
    auto missing = Qvtool({"config", "get", kFile, "name"});
    EXPECT_EQ(missing.exit_code, 3);
    EXPECT_TRUE(Contains(missing.output, "no configuration file at " + kFile)) << missing.output;

    ASSERT_EQ(Qvtool({"config", "set", kFile, "name", "Anna Karenina"}).exit_code, 0);
    ASSERT_EQ(Qvtool({"config", "set", "--secret", kFile, "password", "hunter2"}).exit_code, 0);
    EXPECT_TRUE(Contains(FileText(kFile), "name=Anna Karenina\n"));
    EXPECT_FALSE(Contains(FileText(kFile), "hunter2"));

    auto name = Qvtool({"config", "get", kFile, "name"});
    EXPECT_EQ(name.exit_code, 0);
    EXPECT_EQ(name.output, "Anna Karenina\n");
    auto refused = Qvtool({"config", "get", kFile, "password"});
    EXPECT_EQ(refused.exit_code, 3);
    EXPECT_TRUE(Contains(refused.output, "--secret")) << refused.output;
    EXPECT_EQ(Qvtool({"config", "get", "--secret", kFile, "password"}).output, "hunter2\n");

    auto absent = Qvtool({"config", "get", kFile, "volume"});
    EXPECT_EQ(absent.exit_code, 3);
    EXPECT_TRUE(Contains(absent.output, "no key volume")) << absent.output;
    auto fallback = Qvtool({"config", "get", kFile, "volume", "5"});
    EXPECT_EQ(fallback.exit_code, 0);
    EXPECT_EQ(fallback.output, "5\n");

    EXPECT_EQ(Qvtool({"config", "delete", kFile, "name"}).exit_code, 0);
    EXPECT_FALSE(Contains(FileText(kFile), "name="));
    EXPECT_EQ(Qvtool({"config", "delete", kFile, "name"}).exit_code, 3);

    // What can't be stored is refused before anything is written.
    EXPECT_EQ(Qvtool({"config", "set", kFile, "a=b", "c"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"config", "set", kFile, " padded", "c"}).exit_code, 2);
    auto nowhere = Qvtool({"config", "set", "/mnt/ext1/no/such/dir.cfg", "a", "b"});
    EXPECT_EQ(nowhere.exit_code, 3);
    EXPECT_TRUE(Contains(nowhere.output, "no directory /mnt/ext1/no/such")) << nowhere.output;
    EXPECT_EQ(Qvtool({"config", "get", kFile}).exit_code, 2);
}

TEST(QvtoolConfig, ListShowsKeysByPrefixAndMasksSecrets) {
    std::ofstream(kFile) << "net.ssid=home\nnet.channel=6\nui.font=serif\n";
    ASSERT_EQ(Qvtool({"config", "set", "--secret", kFile, "net.password", "hunter2"}).exit_code, 0);

    auto all = Qvtool({"config", "list", kFile});
    EXPECT_EQ(all.exit_code, 0);
    EXPECT_TRUE(Contains(all.output, "ui.font")) << all.output;
    EXPECT_TRUE(Contains(all.output, "(4 keys)")) << all.output;
    EXPECT_FALSE(Contains(all.output, "hunter2")) << all.output;

    auto net = Qvtool({"config", "list", "--secrets", kFile, "net."});
    EXPECT_EQ(net.exit_code, 0);
    EXPECT_FALSE(Contains(net.output, "ui.font")) << net.output;
    EXPECT_TRUE(Contains(net.output, "hunter2")) << net.output;
    EXPECT_TRUE(Contains(net.output, "(3 keys)")) << net.output;
    // Keys in order, one row each.
    EXPECT_LT(net.output.find("net.channel"), net.output.find("net.password"));
    EXPECT_LT(net.output.find("net.password"), net.output.find("net.ssid"));

    EXPECT_TRUE(Contains(Qvtool({"config", "list", kFile, "none."}).output, "(0 keys)"));
    EXPECT_EQ(Qvtool({"config", "list", "/mnt/ext1/absent.cfg"}).exit_code, 3);
}

TEST(QvtoolConfig, WatchPrintsEachSaveOfAnotherProcessUntilInterrupted) {
    EXPECT_EQ(Qvtool({"config", "watch", "/mnt/ext1/absent.cfg"}).exit_code, 3);

    std::ofstream(kFile) << "name=first\nleft=soon\n";
    auto watcher = ChildProcess::Run({qvtest::BuildProgram("qvtool"), "config", "watch", kFile});
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!Watching(watcher.pid()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(Watching(watcher.pid()));

    // Pauses longer than the watch's poll, so that each save shows on its own.
    ASSERT_EQ(Qvtool({"config", "set", kFile, "name", "second"}).exit_code, 0);
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(Qvtool({"config", "set", kFile, "added", "1"}).exit_code, 0);
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(Qvtool({"config", "delete", kFile, "left"}).exit_code, 0);
    std::this_thread::sleep_for(200ms);
    ASSERT_EQ(Qvtool({"config", "set", "--secret", kFile, "pin", "1234"}).exit_code, 0);
    std::this_thread::sleep_for(200ms);

    watcher.Kill(SIGINT);
    auto result = watcher.Wait();
    EXPECT_EQ(result.exit_code, 130) << result.Describe();
    const std::string& out = result.output;
    EXPECT_TRUE(Contains(out, " ~ name=second (was first)\n")) << out;
    EXPECT_TRUE(Contains(out, " + added=1\n")) << out;
    EXPECT_TRUE(Contains(out, " - left\n")) << out;
    EXPECT_TRUE(Contains(out, " + pin=********\n")) << out;
    EXPECT_LT(out.find("name=second"), out.find("added=1"));
    EXPECT_LT(out.find("added=1"), out.find("- left"));
}

}  // namespace
