// qvtool fs and qvtool wifi as a person and a script use them: output, exit codes, interruption.

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
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
using qvtest::ChildResult;

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

off_t Size(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

void Write(const std::string& path, size_t size, char fill = 'x') {
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    std::ofstream(path, std::ios::binary) << std::string(size, fill);
}

TEST(QvtoolFs, MovesCopiesListsAndRemovesWithMeaningfulExitCodes) {
    Write("/mnt/ext1/Books/War and Peace.fb2", 1000);
    Write("/mnt/ext1/Books/sub/Анна.epub", 2000);
    Write("/mnt/ext1/Books/.hidden.fb2", 10);

    auto list = Qvtool({"fs", "ls", "/mnt/ext1/Books", "FB2,epub"});
    EXPECT_EQ(list.exit_code, 0);
    EXPECT_EQ(list.output, "War and Peace.fb2\n");
    EXPECT_EQ(Qvtool({"fs", "ls", "/mnt/ext1/none"}).exit_code, 3);

    auto inside = Qvtool({"fs", "mv", "/mnt/ext1/Books", "/mnt/ext1/Books/sub/"});
    EXPECT_EQ(inside.exit_code, 1);
    EXPECT_TRUE(Contains(inside.output, "into itself")) << inside.output;

    auto moved = Qvtool({"fs", "mv", "/mnt/ext1/Books", "/mnt/ext2/"});
    EXPECT_EQ(moved.exit_code, 0) << moved.output;
    EXPECT_TRUE(Contains(moved.output, "moved 3 files")) << moved.output;
    EXPECT_TRUE(Contains(moved.output, "100%")) << moved.output;
    EXPECT_FALSE(Exists("/mnt/ext1/Books"));
    EXPECT_EQ(Size("/mnt/ext2/Books/sub/Анна.epub"), 2000);

    EXPECT_EQ(Qvtool({"fs", "mv", "/mnt/ext2/Books", "/mnt/ext2/Shelf"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"fs", "mv", "/mnt/ext2/Books", "/mnt/ext2/Shelf"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"fs", "cp", "/mnt/ext2/Shelf/War and Peace.fb2", "/mnt/ext1/c/"}).exit_code,
              0);
    EXPECT_EQ(Size("/mnt/ext1/c/War and Peace.fb2"), 1000);
    EXPECT_EQ(Qvtool({"fs", "cp", "/mnt/ext2/Shelf", "/mnt/ext1/c/"}).exit_code, 2);

    auto free_space = Qvtool({"fs", "free", "/mnt/ext2/not/yet"});
    EXPECT_EQ(free_space.exit_code, 0);
    EXPECT_TRUE(Contains(free_space.output, "MB free on SD card/not/yet")) << free_space.output;

    EXPECT_EQ(Qvtool({"fs", "rm", "/mnt/ext2/Shelf"}).exit_code, 0);
    EXPECT_FALSE(Exists("/mnt/ext2/Shelf"));
    EXPECT_EQ(Qvtool({"fs", "rm", "/mnt/ext2/Shelf"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"fs", "mv", "/mnt/ext2/x"}).exit_code, 2);
}

TEST(QvtoolFs, AMoveThatWouldNotFitIsRefusedAndCtrlCStopsBetweenFiles) {
    ::mkdir("/mnt/ext2/small", 0777);
    ASSERT_EQ(::mount("tmpfs", "/mnt/ext2/small", "tmpfs", 0, "size=2m"), 0) << errno;
    for (int i = 0; i < 3; ++i)
        Write("/mnt/ext1/Big/part" + std::to_string(i), 1024 * 1024);
    auto refused = Qvtool({"fs", "mv", "/mnt/ext1/Big", "/mnt/ext2/small/"});
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_TRUE(Contains(refused.output, "not enough space")) << refused.output;
    EXPECT_EQ(Size("/mnt/ext1/Big/part2"), 1024 * 1024);
    EXPECT_FALSE(Exists("/mnt/ext2/small/Big/part0"));

    for (int i = 0; i < 400; ++i)
        Write("/mnt/ext1/Many/file" + std::to_string(i), 256 * 1024);
    auto move = qvtest::ChildProcess::Run(
        {qvtest::BuildProgram("qvtool"), "fs", "mv", "/mnt/ext1/Many", "/mnt/ext2/"});
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!Contains(move.OutputSoFar(), "moving") && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    move.Kill(SIGINT);
    ChildResult stopped = move.Wait();
    if (stopped.exit_code == 0) GTEST_SKIP() << "the move ended before the interrupt";
    EXPECT_EQ(stopped.exit_code, 130) << stopped.Describe();
    EXPECT_TRUE(Contains(stopped.output, "the rest is still in /mnt/ext1/Many")) << stopped.output;
    int whole = 0;
    for (int i = 0; i < 400; ++i) {
        std::string name = "/Many/file" + std::to_string(i);
        bool here = Size("/mnt/ext1" + name) == 256 * 1024;
        bool there = Size("/mnt/ext2" + name) == 256 * 1024;
        EXPECT_NE(here, there) << name;
        whole += here || there;
    }
    EXPECT_EQ(whole, 400);
}

TEST(QvtoolWifi, SavesAndListsNetworksWithKeysMasked) {
    const std::string file = "/mnt/ext1/system/config/network.json";
    EXPECT_EQ(Qvtool({"wifi", "saved"}).exit_code, 3);
    ASSERT_EQ(Qvtool({"wifi", "save", file, "Home Net", "--key", "correct horse"}).exit_code, 0);
    auto with_static = Qvtool({"wifi", "save", file, "Office", "--password", "pw", "--static",
                               "10.0.0.2/24", "10.0.0.1", "10.0.0.53"});
    EXPECT_EQ(with_static.exit_code, 0);
    EXPECT_TRUE(Contains(with_static.output, "--static and --proxy were not written"));
    ASSERT_EQ(Qvtool({"wifi", "save", file, "Home Net", "--key", "new key"}).exit_code, 0);
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_FALSE(Contains(text.str(), "new key"));

    auto masked = Qvtool({"wifi", "saved"});
    EXPECT_EQ(masked.exit_code, 0);
    EXPECT_TRUE(Contains(masked.output, "Home Net")) << masked.output;
    EXPECT_TRUE(Contains(masked.output, "********"));
    EXPECT_FALSE(Contains(masked.output, "new key"));
    auto shown = Qvtool({"wifi", "saved", "--show-keys", file});
    EXPECT_TRUE(Contains(shown.output, "new key")) << shown.output;
    EXPECT_TRUE(Contains(shown.output, "Office"));
    EXPECT_FALSE(Contains(shown.output, "correct horse"));

    EXPECT_EQ(Qvtool({"wifi", "save", file, "X", "--key", std::string(107, 'k')}).exit_code, 2);
    EXPECT_EQ(Qvtool({"wifi", "save", "/mnt/ext1/no/dir/n.json", "X"}).exit_code, 1);
}

}  // namespace
