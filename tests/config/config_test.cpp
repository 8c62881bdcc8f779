// The process-wide configuration cache against real files and real other processes.

#include "common_utilities/config.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "child_process.h"
#include "config_files.h"
#include "log_capture.h"

namespace {

using quorvel::system::config::Conf;
using quorvel::system::config::Config;
using quorvel::system::config::IsFennorinForFileEnabled;
using quorvel::utilities::CfgWrapper;
using qvtest::FileText;
using qvtest::LogCapture;
using qvtest::PidLine;
using qvtest::SaveInAnotherProcess;
using qvtest::WriteFileText;
using Map = std::map<std::string, std::string>;

const std::string kDir = "/mnt/ext1/system/config/";

Config& Cache() {
    return Config::GetInstance();
}

TEST(Config, AReadSeesWhatAnotherProcessSaved) {
    const std::string file = kDir + "shared.cfg";
    WriteFileText(file, "name=first\ncount=1\n");
    EXPECT_EQ(Cache().ReadString(file, "name", ""), "first");
    EXPECT_EQ(Cache().ReadInt(file, "count", 0), 1);
    // A write of ours not yet saved must survive the reload that the other save causes.
    Cache().WriteString(file, "mine", "unsaved", false);

    SaveInAnotherProcess(file, {{"name", "second"}, {"count", "2"}, {"token", "secret:s3cr3t"}});
    EXPECT_EQ(Cache().ReadString(file, "name", ""), "second");
    EXPECT_EQ(Cache().ReadInt(file, "count", 0), 2);
    EXPECT_EQ(Cache().ReadSecret(file, "token", ""), "s3cr3t");
    EXPECT_EQ(Cache().ReadString(file, "mine", ""), "unsaved");
    EXPECT_EQ(FileText(file).find("s3cr3t"), std::string::npos) << "a secret in plain sight";

    // Each later save is seen by the next read, as many times as it happens.
    for (int i = 3; i < 6; ++i) {
        SaveInAnotherProcess(file, {{"count", std::to_string(i)}});
        EXPECT_EQ(Cache().ReadInt(file, "count", 0), i);
    }
}

TEST(Config, AFileWatchedBeforeItExistsSeesItsFirstSave) {
    const std::string file = kDir + "later.cfg";
    ASSERT_FALSE(qvtest::FileExists(file));
    EXPECT_EQ(Cache().ReadString(file, "key", "default"), "default");
    EXPECT_TRUE(qvtest::FileExists(file));
    SaveInAnotherProcess(file, {{"key", "arrived"}});
    EXPECT_EQ(Cache().ReadString(file, "key", "default"), "arrived");
}

TEST(Config, EmptyNamesAndKeysGiveTheDefaultAndTouchNothing) {
    const std::string file = kDir + "untouched.cfg";
    EXPECT_EQ(Cache().ReadInt(file, "", 5), 5);
    EXPECT_EQ(Cache().ReadString("", "key", "d"), "d");
    EXPECT_EQ(Cache().ReadSecret(file, "", "d"), "d");
    EXPECT_TRUE(Cache().ReadAllStrings("", "").empty());
    Cache().WriteString(file, "", "value", true);
    Cache().WriteInt("", "key", 1, true);
    Cache().SaveConfig(file, true);
    EXPECT_EQ(Cache().OpenConfig(""), nullptr);
    EXPECT_EQ(Cache().GetConfig(file), nullptr);
    EXPECT_FALSE(qvtest::FileExists(file));
}

TEST(Config, WriteWithoutSaveIsSeenHereAndLeavesTheFileUntilSaved) {
    const std::string file = kDir + "delayed.cfg";
    WriteFileText(file, "volume=3\n");
    Cache().WriteInt(file, "volume", 7, false);
    Cache().WriteString(file, "theme", "dark", false);
    EXPECT_EQ(Cache().ReadInt(file, "volume", 0), 7);
    EXPECT_EQ(Cache().ReadString(file, "theme", ""), "dark");
    EXPECT_EQ(FileText(file), "volume=3\n");
    ASSERT_NE(Cache().GetParam(file), nullptr);
    EXPECT_TRUE(Cache().GetParam(file)->save_flag);

    Cache().SaveConfig(file, true);
    EXPECT_EQ(FileText(file), "volume=7\ntheme=dark\n");
    Cache().DeleteString(file, "theme", true);
    EXPECT_EQ(FileText(file), "volume=7\n");
    EXPECT_EQ(Cache().ReadString(file, "theme", "none"), "none");
}

TEST(Config, OpenSaveAndCloseAreLoggedAndAPlainCloseDropsUnsavedWrites) {
    const std::string file = kDir + "logged.cfg";
    WriteFileText(file, "kept=1\n");
    LogCapture log;
    Cache().WriteString(file, "dropped", "x", false);
    EXPECT_TRUE(log.Has(QV_LOG_INFO, PidLine("Open config " + file)));
    Cache().CloseConfig(file, false);
    EXPECT_TRUE(log.Has(QV_LOG_INFO, PidLine("Close config " + file)));
    EXPECT_EQ(FileText(file), "kept=1\n");
    EXPECT_EQ(Cache().ReadString(file, "dropped", "none"), "none");

    Cache().WriteString(file, "saved", "now", true);
    EXPECT_TRUE(log.Has(QV_LOG_INFO, PidLine("Save config " + file)));
    Cache().WriteString(file, "closing", "later", false);
    Cache().CloseConfig(file, true);
    EXPECT_TRUE(log.Has(QV_LOG_INFO, PidLine("Save and close config " + file)));
    EXPECT_EQ(FileText(file), "kept=1\nsaved=now\nclosing=later\n");

    // A secret reads back as written, in this process, unsaved, saved and after a reopen; the
    // file never shows it.
    Cache().WriteSecret(file, "token", "s3cr3t", false);
    EXPECT_EQ(Cache().ReadSecret(file, "token", ""), "s3cr3t");
    Cache().TrueWriteSecret(file, "pin", "4321", true);
    EXPECT_EQ(Cache().ReadSecret(file, "pin", ""), "4321");
    EXPECT_EQ(Cache().ReadAllStrings(file, "token")["token"], "s3cr3t");
    Cache().CloseConfig(file, false);
    EXPECT_EQ(Cache().ReadSecret(file, "token", ""), "s3cr3t");
    EXPECT_EQ(Cache().ReadSecret(file, "pin", ""), "4321");
    EXPECT_EQ(FileText(file).find("s3cr3t"), std::string::npos);
    EXPECT_EQ(FileText(file).find("4321"), std::string::npos);
}

TEST(Config, DelayedSavesAreCarriedOutWhenTheProcessExits) {
    const std::string file = kDir + "at_exit.cfg";
    const std::string flagged = kDir + "flagged.cfg";
    WriteFileText(file, "");
    WriteFileText(flagged, "");
    auto write_and_leave = [&](bool run_destructors) {
        return qvtest::RunInChild([&, run_destructors] {
            Cache().WriteString(file, "left", "at exit", false);
            // A file marked by hand is saved too.
            ::WriteString(Cache().OpenConfig(flagged), "raw", "write");
            Cache().SetSaveFlag(flagged, true);
            if (run_destructors) std::exit(0);
            _exit(0);
            return 0;
        });
    };
    auto abrupt = write_and_leave(false);
    ASSERT_TRUE(abrupt.Succeeded()) << abrupt.Describe();
    EXPECT_EQ(FileText(file), "") << "saved without an exit that runs destructors";

    auto normal = write_and_leave(true);
    ASSERT_TRUE(normal.Succeeded()) << normal.Describe();
    EXPECT_EQ(FileText(file), "left=at exit\n");
    EXPECT_EQ(FileText(flagged), "raw=write\n");
}

TEST(Conf, AStaticConfMadeBeforeTheCacheIsSavedAtExit) {
    const std::string file = kDir + "static.cfg";
    auto child = qvtest::RunInChild([&file] {
        // Made before the cache, so destroyed after it at exit.
        static Conf settings(file);
        settings.WriteString("saved", "by the cache", false);
        std::exit(0);
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    EXPECT_EQ(FileText(file), "saved=by the cache\n");
}

TEST(Config, AForkedChildThatUsesTheCacheLeavesTheParentInformed) {
    const std::string file = kDir + "forked.cfg";
    WriteFileText(file, "key=parent\n");
    ASSERT_EQ(Cache().ReadString(file, "key", ""), "parent");
    // A worker process forked from the application reads, closes, and exits normally.
    auto child = qvtest::RunInChild([&file] {
        if (Cache().ReadString(file, "key", "") != "parent") return 1;
        Cache().CloseConfig(file, false);
        std::exit(0);
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    SaveInAnotherProcess(file, {{"key", "changed"}});
    EXPECT_EQ(Cache().ReadString(file, "key", ""), "changed");
}

TEST(Config, ReadAllStringsMergesTheThreeTables) {
    const std::string file = kDir + "all.cfg";
    WriteFileText(file, "net.ssid=home\nnet.channel=6\nui.font=serif\n");
    SaveInAnotherProcess(file, {{"net.password", "secret:hunter2"}});
    Cache().WriteString(file, "net.channel", "11", false);  // unsaved, over the loaded value
    Cache().WriteString(file, "net.proxy", "none", false);  // unsaved and new

    EXPECT_EQ(Cache().ReadAllStrings(file, ""), (Map{{"net.channel", "11"},
                                                     {"net.password", "hunter2"},
                                                     {"net.proxy", "none"},
                                                     {"net.ssid", "home"},
                                                     {"ui.font", "serif"}}));
    EXPECT_EQ(Cache().ReadAllStrings(file, "net."), (Map{{"net.channel", "11"},
                                                         {"net.password", "hunter2"},
                                                         {"net.proxy", "none"},
                                                         {"net.ssid", "home"}}));
    EXPECT_EQ(Cache().ReadAllStrings(file, "ui.font"), (Map{{"ui.font", "serif"}}));
    EXPECT_TRUE(Cache().ReadAllStrings(file, "nothing").empty());
    EXPECT_TRUE(Config::HashFind(nullptr, "").empty());

    // A save by another process is in the listing at once, and our unsaved writes stay.
    SaveInAnotherProcess(file, {{"ui.size", "12"}});
    auto after = Cache().ReadAllStrings(file, "ui.");
    EXPECT_EQ(after, (Map{{"ui.font", "serif"}, {"ui.size", "12"}}));
    EXPECT_EQ(Cache().ReadAllStrings(file, "net.channel")["net.channel"], "11");
}

TEST(Conf, TwoObjectsOnOnePathShareOneHandleAndTheFirstCloseEndsIt) {
    const std::string file = kDir + "conf.cfg";
    WriteFileText(file, "");
    auto first = std::make_unique<Conf>(file);
    Conf second(file);
    first->WriteString("shared", "yes", false);
    EXPECT_EQ(second.ReadString("shared", ""), "yes");
    iconfig* handle = Cache().GetConfig(file);
    ASSERT_NE(handle, nullptr);

    first.reset();  // saves and closes, for the other user too
    EXPECT_EQ(FileText(file), "shared=yes\n");
    EXPECT_EQ(Cache().GetConfig(file), nullptr);
    EXPECT_EQ(second.ReadString("shared", ""), "yes");  // opened anew
    EXPECT_NE(Cache().GetConfig(file), nullptr);

    Conf nameless;
    nameless.WriteString("key", "value", true);
    EXPECT_EQ(nameless.ReadString("key", "d"), "d");
}

TEST(Conf, TimesRoundTripForThe32BitRange) {
    const std::string file = kDir + "times.cfg";
    Conf conf(file);
    for (int64_t value : {INT32_MIN, INT32_MIN + 1, -1, 0, 1, 0x01020304, 1700000000, INT32_MAX}) {
        conf.WriteTime("t", static_cast<time_t>(value), false);
        EXPECT_EQ(conf.ReadTime("t", 99), static_cast<time_t>(value)) << value;
    }
    // Four bytes, little-endian, in Base64: what other applications of the device read.
    conf.WriteTime("t", 0x01020304, true);
    EXPECT_EQ(conf.ReadString("t", ""), "BAMCAQ==");
    EXPECT_NE(FileText(file).find("t=BAMCAQ==\n"), std::string::npos);

    EXPECT_EQ(conf.ReadTime("absent", 1234), 1234);
    LogCapture log;
    conf.WriteString("short", "AAAA", false);  // decodes to 3 bytes
    EXPECT_EQ(conf.ReadTime("short", 1234), 0);
    EXPECT_TRUE(log.Has(QV_LOG_ERROR,
                        PidLine("Condition: \"sizeof(result) != data.size()\", return(\"0\")]")));
}

TEST(CfgWrapper, ClosesTheWayItsModeSays) {
    const std::string file = kDir + "wrapped.cfg";
    WriteFileText(file, "old=1\n");
    {
        CfgWrapper saving(file, CfgWrapper::kSaveAndClose);
        ASSERT_TRUE(saving.isOpened());
        WriteString(saving.handle(), "new", "2");
        saving.remove("old");
    }
    EXPECT_EQ(FileText(file), "new=2\n");
    {
        CfgWrapper saving(file, CfgWrapper::kSaveAndClose);
        WriteString(saving.handle(), "dropped", "3");
        saving.closeNoSave();
        EXPECT_FALSE(saving.isOpened());
    }
    {
        CfgWrapper discarding(file, CfgWrapper::kCloseNoSave);
        WriteString(discarding.handle(), "dropped", "4");
    }
    EXPECT_EQ(FileText(file), "new=2\n");
    {
        CfgWrapper discarding(file, CfgWrapper::kCloseNoSave);
        WriteString(discarding.handle(), "kept", "5");
        discarding.save();
    }
    EXPECT_EQ(FileText(file), "new=2\nkept=5\n");
    EXPECT_FALSE(CfgWrapper("", CfgWrapper::kSaveAndClose).isOpened());
}

TEST(Fennorin, DecidedByTheGlobalSwitchThePlaceTheKindAndTheManualsList) {
    WriteFileText("/zelgrot/share/manuals.ini", "User Guide.pdf=0\nQuick Start.pdf=1\n");
    WriteFileText(kDir + "global.cfg", "fennorin_status=1\n");
    EXPECT_FALSE(IsFennorinForFileEnabled(""));
    EXPECT_TRUE(IsFennorinForFileEnabled("/mnt/ext1/Books/Novel.epub"));
    EXPECT_TRUE(IsFennorinForFileEnabled("/mnt/ext2/Quick Start.pdf"));
    EXPECT_TRUE(IsFennorinForFileEnabled("no_directory.fb2"));
    EXPECT_FALSE(IsFennorinForFileEnabled("/mnt/ext1/Books/User Guide.pdf"));
    EXPECT_FALSE(IsFennorinForFileEnabled("/mnt/ext1/Books/report.DOCX"));
    EXPECT_FALSE(IsFennorinForFileEnabled("/mnt/ext1/Books/letter.Doc"));
    EXPECT_TRUE(IsFennorinForFileEnabled("/mnt/ext1/Books/letter.docm"));
    for (const char* excluded :
         {"/mnt/ext1/system/config/fennorin/cache.epub", "/mnt/ext1/system/config/fennorinx.epub",
          "/zelgrot/share/help.epub", "/tmp/download.epub", "/mnt/ext1/applications/.os/a.epub"}) {
        EXPECT_FALSE(IsFennorinForFileEnabled(excluded)) << excluded;
    }
    EXPECT_TRUE(IsFennorinForFileEnabled("/mnt/ext1/applications/game.epub"));

    // The global switch is read afresh: another process turning it off takes effect.
    SaveInAnotherProcess(kDir + "global.cfg", {{"fennorin_status", "0"}});
    EXPECT_FALSE(IsFennorinForFileEnabled("/mnt/ext1/Books/Novel.epub"));
}

}  // namespace
