// The device sandbox every test runs in.

#include <gtest/gtest.h>
#include <sys/vfs.h>

#include <filesystem>
#include <string>

#include "child_process.h"

namespace {

namespace fs = std::filesystem;

TEST(DeviceSandbox, StartsAsAFreshPrivateDevice) {
    constexpr long kTmpfsMagic = 0x01021994;
    for (const char* path : {"/mnt/ext1", "/mnt/ext2", "/zelgrot", "/tmp", "/var/run"}) {
        struct statfs info {};
        ASSERT_EQ(statfs(path, &info), 0) << path;
        EXPECT_EQ(info.f_type, kTmpfsMagic) << path << " is not a private tree";
    }
    EXPECT_TRUE(fs::is_directory("/mnt/ext1/system/config"));
    EXPECT_TRUE(fs::is_empty("/mnt/ext1/system/config"));
    EXPECT_TRUE(fs::is_empty("/mnt/ext2"));
    EXPECT_FALSE(fs::exists("/var/run/moorglass-host/ipc.log"));

    // The device's own sqlite3 shell is there and works on the private trees.
    auto shell = qvtest::RunProgram({"/zelgrot/bin/sqlite3", "/mnt/ext1/t.db",
                                     "create table t(a); insert into t values(41+1); "
                                     "select a from t;"});
    EXPECT_TRUE(shell.Succeeded()) << shell.output;
    EXPECT_EQ(shell.output, "42\n");
}

TEST(DeviceSandbox, RefusesToRunWithoutAnyCommand) {
    auto run = qvtest::RunProgram({qvtest::BuildProgram("devsandbox")});
    EXPECT_EQ(run.exit_code, 125);
    EXPECT_NE(run.output.find("no command"), std::string::npos) << run.output;
}

}  // namespace
