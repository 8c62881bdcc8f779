// The services' shared status file across real processes: merging, the stream form on disk,
// damaged files, and the indicator that follows the combined state.

#include "common_utilities/services_download_status.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using quorvel::utilities::DownloadStatus;
using quorvel::utilities::ServicesDownloadStatus;
using qvtest::RunInChild;

const char* const kPath = ServicesDownloadStatus::kFilePath;

std::string FileBytes() {
    std::ifstream in(kPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string& bytes) {
    std::ofstream(kPath, std::ios::binary | std::ios::trunc) << bytes;
}

std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const DownloadStatus& status : ServicesDownloadStatus::GetInstance().GetStatuses())
        names.push_back(status.service_name());
    return names;
}

// A process id that no longer exists: a child that has ended and been reaped.
int DeadPid() {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

DownloadStatus::File Item(const std::string& id, int value) {
    DownloadStatus::File file;
    file.id = id;
    file.text_a = "title " + id;
    file.value_a = value;
    return file;
}

TEST(ServicesDownloadStatus, RecordsOfServicesMergeSortedInTheStreamForm) {
    DownloadStatus second;
    ASSERT_EQ(QV_OK, second.Init("@zeta", 77));
    DownloadStatus first;
    ASSERT_EQ(QV_OK, first.Init("@alpha", 0x01020304));
    ASSERT_EQ(QV_OK, second.StartDownload());
    EXPECT_EQ((std::vector<std::string>{"@alpha", "@zeta"}), Names());

    // The first record byte for byte: name, pid, status, error, message, totals, current file,
    // count, files, custom message.
    std::string expected("@alpha\0\x01\x02\x03\x04", 11);
    expected += std::string(8, '\0') + std::string(1, '\0') + std::string(16, '\0');
    expected += std::string(3, '\0') + std::string(16, '\0') + std::string(4, '\0') + '\0';
    std::string bytes = FileBytes();
    ASSERT_GE(bytes.size(), expected.size());
    EXPECT_EQ(expected, bytes.substr(0, expected.size()));
    EXPECT_EQ("@zeta", bytes.substr(expected.size(), 5));

    // Everything a service sets comes back through another reader.
    ASSERT_EQ(QV_OK, first.SetFileList({Item("a", 1), Item("b", 2)}));
    ASSERT_EQ(QV_OK, first.SetCurrentProgressStatus(Item("b", 20)));
    ASSERT_EQ(QV_OK, first.SetCurrentProgressStatus(Item("nope", 30)));  // not listed: no change
    ASSERT_EQ(QV_OK, first.SetTotalProgressStatus(1, -2, 3, 4));
    ASSERT_EQ(QV_OK, first.SetErrorStatus(static_cast<DownloadStatus::Error>(4), "disk full"));
    ASSERT_EQ(QV_OK, first.SetCustomMessage("hello"));
    DownloadStatus read = ServicesDownloadStatus::GetInstance().GetStatuses().front();
    EXPECT_EQ(0x01020304, read.pid());
    EXPECT_EQ(4, read.error());
    EXPECT_EQ("disk full", read.error_message());
    EXPECT_EQ("hello", read.custom_message());
    EXPECT_EQ(-2, read.total_b);
    EXPECT_EQ(Item("b", 20), read.current_file());
    EXPECT_EQ((std::vector<DownloadStatus::File>{Item("a", 1), Item("b", 20)}), read.GetFileList());

    ASSERT_EQ(QV_OK, first.ResetProgress());
    read = ServicesDownloadStatus::GetInstance().GetStatuses().front();
    EXPECT_TRUE(read.GetFileList().empty());
    EXPECT_EQ(0, read.error());
    EXPECT_EQ(DownloadStatus::File(), read.current_file());
    EXPECT_EQ("hello", read.custom_message());
}

TEST(ServicesDownloadStatus, ChecksBeforeAndAfterInit) {
    qvtest::LogCapture log;
    DownloadStatus status;
    EXPECT_EQ(QV_WRONG_STATE, status.StartDownload());
    EXPECT_EQ(QV_WRONG_STATE, status.SetErrorStatus(DownloadStatus::kErrorNeedsUser, "x"));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine(
                               "Condition: \"service_name_.empty()\", return(\"QV_WRONG_STATE\")]")));
    EXPECT_EQ(-1, access(kPath, F_OK)) << "nothing may be written";
    EXPECT_EQ(QV_INVAL, status.Init("", 1));

    // Published before Init: a record without a name, whose pid -1 counts as dead.
    ASSERT_EQ(QV_OK, status.SetCustomMessage("early"));
    EXPECT_EQ(std::vector<std::string>{""}, Names());
    ASSERT_EQ(QV_OK, status.Init("@svc", getpid()));
    EXPECT_EQ(QV_WRONG_STATE, status.Init("@other", getpid()));
    EXPECT_EQ((std::vector<std::string>{"", "@svc"}), Names());
}

TEST(ServicesDownloadStatus, IndicatorFollowsLivingServices) {
    auto& all = ServicesDownloadStatus::GetInstance();
    DownloadStatus gone;
    ASSERT_EQ(QV_OK, gone.Init("@gone", DeadPid()));
    ASSERT_EQ(QV_OK, gone.StartDownload());
    EXPECT_FALSE(all.IsDownloading());
    EXPECT_EQ(0, qvhost_tarvey_status());

    DownloadStatus live;
    ASSERT_EQ(QV_OK, live.Init("@live", getpid()));
    ASSERT_EQ(QV_OK, live.SetErrorStatus(DownloadStatus::kErrorNeedsUser, "sign in"));
    EXPECT_EQ(3, qvhost_tarvey_status());
    ASSERT_EQ(QV_OK, live.SetErrorStatus(static_cast<DownloadStatus::Error>(4), "failed"));
    EXPECT_EQ(5, qvhost_tarvey_status());
    ASSERT_EQ(QV_OK, live.SetProgressStatus(static_cast<DownloadStatus::Status>(7)));
    EXPECT_EQ(2, qvhost_tarvey_status()) << "downloading wins over an error";
    EXPECT_TRUE(all.IsDownloading());

    // Another process publishes its own record; ours stays and still counts.
    ASSERT_TRUE(RunInChild([] {
                    DownloadStatus other;
                    return other.Init("@child", getpid()) | other.StopDownload();
                }).Succeeded());
    EXPECT_EQ(2, qvhost_tarvey_status());
    ASSERT_EQ(QV_OK, live.StopDownload());
    EXPECT_EQ(5, qvhost_tarvey_status());
    ASSERT_EQ(QV_OK, live.SetErrorStatus(DownloadStatus::kNoError, ""));
    EXPECT_EQ(0, qvhost_tarvey_status());
    EXPECT_EQ((std::vector<std::string>{"@child", "@gone", "@live"}), Names());
}

TEST(ServicesDownloadStatus, DamagedFilesAreRepairedOnLoad) {
    DownloadStatus a;
    ASSERT_EQ(QV_OK, a.Init("@a", 1));
    DownloadStatus b;
    ASSERT_EQ(QV_OK, b.Init("@b", 2));
    ASSERT_EQ(QV_OK, b.SetFileList({Item("x", 1)}));
    const std::string whole = FileBytes();
    const size_t first = whole.find("@b");

    // Cut in the middle of the second record: the first survives, and the file is whole again.
    WriteBytes(whole.substr(0, first + 12));
    qvtest::LogCapture log;
    EXPECT_EQ((std::vector<std::string>{"@a", "@b"}), Names());
    EXPECT_TRUE(log.HasFragment(1, "Failed with [-1]"));
    EXPECT_EQ(whole.substr(0, first), FileBytes()) << "saved anew from the whole records";

    // The next publication writes both whole records again.
    ASSERT_EQ(QV_OK, b.SetCustomMessage("back"));
    std::vector<DownloadStatus> statuses = ServicesDownloadStatus::GetInstance().GetStatuses();
    ASSERT_EQ(2u, statuses.size());
    EXPECT_EQ("back", statuses[1].custom_message());
    EXPECT_EQ(1u, statuses[1].GetFileList().size());

    // A torn copy of a record behind its whole one (found by fuzz_status_file) leaves the whole
    // one in place, also through the next publication of another service.
    const std::string both = FileBytes();
    WriteBytes(both + both.substr(both.find("@b"), 12));
    for (int round = 0; round < 2; ++round) {
        statuses = ServicesDownloadStatus::GetInstance().GetStatuses();
        ASSERT_EQ(2u, statuses.size());
        EXPECT_EQ("back", statuses[1].custom_message()) << round;
        EXPECT_EQ(1u, statuses[1].GetFileList().size()) << round;
        ASSERT_EQ(QV_OK, a.StartDownload());
    }
    EXPECT_EQ(both.size(), FileBytes().size());

    // A count of files far beyond the data ends at the data's end, not in memory.
    std::string huge = FileBytes();
    size_t count_at = huge.find("@b") + 2 + 1 + 4 * 3 + 1 + 16 + 3 + 16;
    huge.replace(count_at, 4, "\x7f\xff\xff\xff");
    WriteBytes(huge);
    EXPECT_EQ((std::vector<std::string>{"@a", "@b"}), Names());

    // Bytes that were never a record (a name without its end is not taken), and an empty file.
    WriteBytes(std::string("\xff\xfe", 2));
    EXPECT_EQ(std::vector<std::string>{""}, Names());
    WriteBytes("");
    EXPECT_TRUE(Names().empty());
    ASSERT_EQ(QV_OK, a.StopDownload());
    EXPECT_EQ(std::vector<std::string>{"@a"}, Names());
}

// Several services hammer the file at once while another process reads it: every record of
// every service is there at the end, with its last values, and no reader ever saw a damaged file.
TEST(ServicesDownloadStatus, ConcurrentProcessesLoseNothing) {
    constexpr int kWriters = 8;
    constexpr int kRounds = 60;
    std::vector<qvtest::ChildProcess> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(qvtest::ChildProcess::Start([w] {
            DownloadStatus status;
            int rc = status.Init("@svc" + std::to_string(w), getpid());
            for (int round = 1; round <= kRounds && rc == QV_OK; ++round) {
                rc = status.SetTotalProgressStatus(w, round, 0, 0);
                if (rc == QV_OK) rc = status.SetCustomMessage(std::string(round % 7 * 40, 'm'));
            }
            return rc;
        }));
    }
    qvtest::ChildProcess reader = qvtest::ChildProcess::Start([] {
        qvtest::LogCapture log;
        for (int i = 0; i < 200; ++i) {
            for (const DownloadStatus& status : ServicesDownloadStatus::GetInstance().GetStatuses())
                if (status.service_name().rfind("@svc", 0) != 0) return 2;
        }
        return log.Messages(1).empty() ? 0 : 3;
    });
    for (auto& writer : writers) {
        qvtest::ChildResult result = writer.Wait();
        ASSERT_TRUE(result.Succeeded()) << result.Describe();
    }
    qvtest::ChildResult read = reader.Wait();
    ASSERT_TRUE(read.Succeeded()) << read.Describe();

    std::vector<DownloadStatus> statuses = ServicesDownloadStatus::GetInstance().GetStatuses();
    ASSERT_EQ(static_cast<size_t>(kWriters), statuses.size());
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ("@svc" + std::to_string(w), statuses[w].service_name());
        EXPECT_EQ(w, statuses[w].total_a);
        EXPECT_EQ(kRounds, statuses[w].total_b);
        EXPECT_EQ(std::string(kRounds % 7 * 40, 'm'), statuses[w].custom_message());
    }
}

}  // namespace
