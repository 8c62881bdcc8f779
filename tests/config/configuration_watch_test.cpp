// Change watches on configuration files, changed by real other processes.

#include "common_utilities/configuration_watch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "child_process.h"
#include "config_files.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::ConfigurationMultiWatch;
using quorvel::utilities::ConfigurationWatch;
using qvtest::FileText;
using qvtest::LogCapture;
using qvtest::PidLine;
using qvtest::SaveInAnotherProcess;

const std::string kFile = "/mnt/ext1/system/config/watched.cfg";
const std::string kOther = "/mnt/ext1/system/config/other.cfg";

struct Counter : ConfigurationMultiWatch::Notify {
    void Changed() override { ++calls; }
    int calls = 0;
};

struct SingleCounter : ConfigurationWatch::Notify {
    void Changed() override { ++calls; }
    int calls = 0;
};

off_t FileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(ConfigurationMultiWatch, AddAndDeleteKeepTheirPromises) {
    LogCapture log;
    ConfigurationMultiWatch watch;
    Counter listener;
    EXPECT_EQ(watch.DeleteWatch(kFile, &listener), QV_INVAL);  // nothing added yet
    EXPECT_EQ(watch.AddWatch("", &listener), QV_INVAL);

    // A file no one has written yet is made, empty, so that it can be watched.
    ASSERT_FALSE(qvtest::FileExists(kFile));
    EXPECT_EQ(watch.AddWatch(kFile, &listener), 0);
    EXPECT_EQ(FileSize(kFile), 0);
    EXPECT_EQ(watch.AddWatch(kFile, &listener), 0);
    int adds = 0;
    for (const auto& message : log.Messages(QV_LOG_INFO))
        adds += message == PidLine("add watch for " + kFile);
    EXPECT_EQ(adds, 1) << "the same listener was added twice";

    const std::string nowhere = "/mnt/ext1/no/such/dir/x.cfg";
    EXPECT_EQ(watch.AddWatch(nowhere, &listener), -1);
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed to inotify_add_watch to file " + nowhere)));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("errno = 2")));

    // Deleting a pair that isn't watched is no error; deleting the real one ends the events.
    Counter stranger;
    EXPECT_EQ(watch.DeleteWatch(kFile, &stranger), 0);
    EXPECT_EQ(watch.DeleteWatch(kFile, &listener), 0);
    SaveInAnotherProcess(kFile, {{"key", "value"}});
    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 0);
}

TEST(ConfigurationMultiWatch, ManySavesBetweenPollsGiveOneNotificationPerFile) {
    ConfigurationMultiWatch watch;
    Counter first, second, other;
    ASSERT_EQ(watch.AddWatch(kFile, &first), 0);
    ASSERT_EQ(watch.AddWatch(kFile, &second), 0);
    ASSERT_EQ(watch.AddWatch(kOther, &other), 0);

    // Saves of the two files take turns, so that the kernel can't fold the events of one file
    // into one: debouncing them is the watch's own work.
    auto saver = qvtest::RunInChild([] {
        iconfig* files[] = {OpenConfig(kFile.c_str(), 0), OpenConfig(kOther.c_str(), 0)};
        for (int i = 0; i < 20; ++i) {
            WriteInt(files[i % 2], "step", i);
            if (SaveConfig(files[i % 2]) != 0) return 1;
        }
        CloseConfigNoSave(files[0]);
        CloseConfigNoSave(files[1]);
        return 0;
    });
    ASSERT_TRUE(saver.Succeeded()) << saver.Describe();

    watch.CheckChanges();
    // One call per file and poll, and for a file only its first listener hears of it.
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 0);
    EXPECT_EQ(other.calls, 1);

    // A poll with nothing queued says nothing, not even in the log.
    LogCapture log;
    watch.CheckChanges();
    EXPECT_EQ(first.calls, 1);
    EXPECT_TRUE(log.Lines().empty());

    SaveInAnotherProcess(kFile, {{"step", "again"}});
    watch.CheckChanges();
    EXPECT_EQ(first.calls, 2);
    EXPECT_EQ(other.calls, 1);
}

TEST(ConfigurationMultiWatch, ListenersGoOnHearingWhenAnotherLeavesAndWhenTheFileIsMadeAnew) {
    ConfigurationMultiWatch watch;
    Counter first, second;
    ASSERT_EQ(watch.AddWatch(kFile, &first), 0);
    ASSERT_EQ(watch.AddWatch(kFile, &second), 0);
    // The two share the file's watch: the first leaving must not take it from the second.
    ASSERT_EQ(watch.DeleteWatch(kFile, &first), 0);
    SaveInAnotherProcess(kFile, {{"key", "one"}});
    watch.CheckChanges();
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(second.calls, 1);

    // Deleted, the file takes its watch along; made again by another process, it is heard of,
    // and so is every later save.
    ASSERT_EQ(::unlink(kFile.c_str()), 0);
    watch.CheckChanges();
    EXPECT_EQ(second.calls, 1);
    SaveInAnotherProcess(kFile, {{"key", "two"}});
    watch.CheckChanges();
    EXPECT_EQ(second.calls, 2);
    SaveInAnotherProcess(kFile, {{"key", "three"}});
    watch.CheckChanges();
    EXPECT_EQ(second.calls, 3);
    watch.CheckChanges();
    EXPECT_EQ(second.calls, 3);
}

TEST(ConfigurationMultiWatch, AForkedChildNeitherTakesNorEndsItsParentsEvents) {
    ConfigurationMultiWatch watch;
    Counter listener;
    ASSERT_EQ(watch.AddWatch(kFile, &listener), 0);
    SaveInAnotherProcess(kFile, {{"key", "before the fork"}});

    // The child polls (which would read the parent's queue), stops watching (which would remove
    // the parent's watch) and exits through the destructors.
    auto child = qvtest::RunInChild([&watch, &listener] {
        watch.CheckChanges();
        if (listener.calls != 1) return 10 + listener.calls;  // told once: it can't know more
        watch.DeleteWatch(kFile, &listener);
        std::exit(0);
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();

    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 1) << "the child took the parent's event";
    SaveInAnotherProcess(kFile, {{"key", "after the child"}});
    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 2) << "the child removed the parent's watch";
}

TEST(ConfigurationWatch, NeedsAnExistingFileAndReopensItsHandleOnChange) {
    LogCapture log;
    ConfigurationWatch missing;
    SingleCounter listener;
    EXPECT_EQ(missing.Init(kFile, &listener), -1);
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Failed to inotify_add_watch")));
    EXPECT_EQ(missing.GetConfig(), nullptr);

    qvtest::WriteFileText(kFile, "key=old\n");
    ConfigurationWatch watch;
    ASSERT_EQ(watch.Init(kFile, &listener), 0);
    ASSERT_NE(watch.GetConfig(), nullptr);
    EXPECT_STREQ(ReadString(watch.GetConfig(), "key", ""), "old");
    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 0);

    qvtest::Entries ten;
    for (int i = 0; i < 10; ++i)
        ten.emplace_back("key", "new " + std::to_string(i));
    SaveInAnotherProcess(kFile, ten);
    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 1);
    EXPECT_STREQ(ReadString(watch.GetConfig(), "key", ""), "new 9");
    watch.CheckChanges();
    EXPECT_EQ(listener.calls, 1);

    // A file deleted and made again by another process is watched anew.
    ASSERT_EQ(::unlink(kFile.c_str()), 0);
    watch.CheckChanges();
    int expected = listener.calls;
    for (const char* value : {"again", "and again"}) {
        SaveInAnotherProcess(kFile, {{"key", value}});
        watch.CheckChanges();
        EXPECT_EQ(listener.calls, ++expected) << value;
        EXPECT_STREQ(ReadString(watch.GetConfig(), "key", ""), value);
    }
}

TEST(ConfigurationWatch, AForkedChildLeavesTheParentsWatchAlone) {
    qvtest::WriteFileText(kFile, "key=old\n");
    auto watch = std::make_unique<ConfigurationWatch>();
    SingleCounter listener;
    ASSERT_EQ(watch->Init(kFile, &listener), 0);
    SaveInAnotherProcess(kFile, {{"key", "one"}});
    auto child = qvtest::RunInChild([&watch] {
        watch->CheckChanges();
        watch.reset();
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();

    watch->CheckChanges();
    EXPECT_EQ(listener.calls, 1) << "the child took the parent's event";
    EXPECT_STREQ(ReadString(watch->GetConfig(), "key", ""), "one");
    SaveInAnotherProcess(kFile, {{"key", "two"}});
    watch->CheckChanges();
    EXPECT_EQ(listener.calls, 2) << "the child ended the parent's watch";
}

}  // namespace
