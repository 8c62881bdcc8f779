// What a download survives: connections dropped mid-body, a server that won't serve ranges, the
// process killed mid-transfer, and a disk too small for the file.

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "child_process.h"
#include "common_utilities/downloader.h"
#include "connect_hook.h"
#include "download_test_support.h"
#include "log_capture.h"
#include "server_process.h"

namespace {

using quorvel::utilities::Downloader;
using quorvel::utilities::FileToSync;
using qvtest::DownloadStat;
using qvtest::FileUrl;
using qvtest::LogCapture;
using qvtest::NotificationRecorder;
using qvtest::PidLine;
using qvtest::ReadProgress;
using qvtest::Sha256OfFile;
using qvtest::Sha256OfPattern;

constexpr int kError = 1;
const std::string& kFolder = qvtest::kDownloadFolder;
using qvtest::Book;
using qvtest::Temp;

// The downloader is made on demand: a test that forks does so while the process has no thread.
class DownloadRecovery : public ::testing::Test {
protected:
    Downloader& Started() {
        if (!downloader_) {
            downloader_ = std::make_unique<Downloader>();
            recorder_ = std::make_unique<NotificationRecorder>(*downloader_);
            EXPECT_EQ(downloader_->Init(recorder_.get()), QV_OK);
        }
        return *downloader_;
    }

    // Starts and waits for a terminal status; the status then.
    Downloader::StatusInfo Run(const FileToSync& book) {
        Downloader& downloader = Started();
        size_t from = recorder_->Count();
        EXPECT_EQ(downloader.Start(book, kFolder, nullptr), QV_OK);
        EXPECT_TRUE(recorder_->WaitForCount(from + 2)) << server_.Output();
        return recorder_->Notifications().at(from + 1).status;
    }

    void TearDown() override { downloader_.reset(); }

    qvtest::HttpTestServer server_;
    std::unique_ptr<NotificationRecorder> recorder_;
    std::unique_ptr<Downloader> downloader_;
};

TEST_F(DownloadRecovery, DroppedConnectionsAreResumedTenTimesInARow) {
    LogCapture log;
    // Every response breaks off after 10000 bytes: four drops, then the rest arrives whole.
    FileToSync book = Book(FileUrl(server_, 21, 45000, "drop=10000"), "dropped.bin", 45000);
    Downloader::StatusInfo end = Run(book);
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(end.http_code, 206);
    EXPECT_EQ(end.total, 45000);
    EXPECT_EQ(DownloadStat(server_, "ranges"), "4");
    EXPECT_EQ(DownloadStat(server_, "last-range"), "bytes=40000-");
    EXPECT_EQ(Sha256OfFile(Temp("dropped.bin")), Sha256OfPattern(21, 45000));

    // Twelve pieces needed, eleven tries in a row: the transfer fails and keeps what came.
    FileToSync longer = Book(FileUrl(server_, 22, 120000, "drop=10000"), "longer.bin", 120000);
    end = Run(longer);
    EXPECT_EQ(end.status, Downloader::DS_Error);
    EXPECT_EQ(end.error, Downloader::kErrorTransfer);
    EXPECT_EQ(end.http_code, 0);
    EXPECT_TRUE(
        log.Has(kError, PidLine("File download failed [" + longer.url + "] with curl error [18]")));
    EXPECT_EQ(ReadProgress(Temp("longer.bin") + ".progress").offset, 110000);

    // The next attempt needs one piece more.
    end = Run(longer);
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(DownloadStat(server_, "last-range"), "bytes=110000-");
    EXPECT_EQ(Sha256OfFile(Temp("longer.bin")), Sha256OfPattern(22, 120000));
}

TEST_F(DownloadRecovery, AServerThatRefusesRangesMakesTheFileStartOver) {
    LogCapture log;
    // Left by an earlier attempt: 7000 bytes that the record vouches for, which the server can't
    // continue. Garbage, so that only a restart from the first byte gives the right file.
    ASSERT_EQ(::mkdir(kFolder.c_str(), 0777), 0);
    qvtest::WriteFile(Temp("norange.bin"), std::string(7000, 'z'));
    qvtest::WriteProgress(Temp("norange.bin") + ".progress", 7000, 0);

    FileToSync book = Book(FileUrl(server_, 23, 20000, "norange=1"), "norange.bin", 20000);
    Downloader::StatusInfo end = Run(book);
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(end.http_code, 200);
    EXPECT_TRUE(log.Has(kError, PidLine("Range error file size [20000], requested from [7000]")));
    EXPECT_EQ(DownloadStat(server_, "ranges"), "1");  // asked once, then from the start
    EXPECT_EQ(Sha256OfFile(Temp("norange.bin")), Sha256OfPattern(23, 20000));
}

TEST_F(DownloadRecovery, AKilledProcessIsResumedByTheNextOneFromItsRecord) {
    const size_t size = 2000000;
    const std::string name = "killed.bin";
    // A slow server, so that the child is surely mid-transfer when it dies.
    const std::string slow = FileUrl(server_, 24, size, "rate=500000");
    qvtest::ChildProcess child = qvtest::ChildProcess::Start([&] {
        Downloader downloader;
        NotificationRecorder recorder(downloader);
        downloader.Init(&recorder);
        downloader.Start(Book(slow, name, size), kFolder, nullptr);
        recorder.WaitForStatus(Downloader::DS_Finished, 0, std::chrono::seconds(60));
        return 3;  // not reached: killed before
    });
    ASSERT_TRUE(qvtest::Eventually([&] {
        return ReadProgress(Temp(name) + ".progress").offset > 200000;
    })) << child.OutputSoFar();
    child.Kill(SIGKILL);
    qvtest::ChildResult result = child.Wait();
    ASSERT_EQ(result.signal, SIGKILL) << result.Describe();
    int32_t kept = ReadProgress(Temp(name) + ".progress").offset;
    ASSERT_LT(kept, static_cast<int32_t>(size));

    // This process goes on at full speed from where the record says.
    Downloader::StatusInfo end = Run(Book(FileUrl(server_, 24, size), name, size));
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(end.http_code, 206);
    EXPECT_EQ(DownloadStat(server_, "last-range"), "bytes=" + std::to_string(kept) + "-");
    Downloader& downloader = Started();
    downloader.Cleanup(Book("", name));
    EXPECT_EQ(Sha256OfFile(kFolder + "/" + name), Sha256OfPattern(24, size));
}

TEST_F(DownloadRecovery, AFullDiskIsErrorKindThreeAndLeavesNoDataFile) {
    LogCapture log;
    ASSERT_EQ(::mkdir(kFolder.c_str(), 0777), 0);
    ASSERT_EQ(::mount("tmpfs", kFolder.c_str(), "tmpfs", 0, "size=1m"), 0) << errno;
    struct statvfs fs {};
    ASSERT_EQ(::statvfs(kFolder.c_str(), &fs), 0);
    const auto free_bytes = static_cast<int32_t>(fs.f_bsize * fs.f_bavail);

    long requests = server_.RequestCount();
    for (int32_t size : {2 * 1024 * 1024, free_bytes}) {
        Downloader::StatusInfo end = Run(Book(FileUrl(server_, 25, size), "full.bin", size));
        EXPECT_EQ(end.status, Downloader::DS_Error) << size;
        EXPECT_EQ(end.error, Downloader::kErrorSpace) << size;
        EXPECT_EQ(end.http_code, 0) << size;
        EXPECT_FALSE(qvtest::Exists(Temp("full.bin"))) << size;
        EXPECT_FALSE(qvtest::Exists(Temp("full.bin") + ".progress")) << size;
    }
    EXPECT_EQ(server_.RequestCount(), requests);  // refused before any byte was asked for
    EXPECT_TRUE(log.Has(kError, PidLine("Not enough space for [" + Temp("full.bin") + "]")));

    // With no size to reserve, the disk fills during the transfer: a failed write, no crash, and
    // the files stay for the owner to remove.
    Downloader::StatusInfo end = Run(Book(FileUrl(server_, 25, 2 * 1024 * 1024), "full.bin"));
    EXPECT_EQ(end.status, Downloader::DS_Error);
    EXPECT_EQ(end.error, Downloader::kErrorTransfer);
    int32_t kept = ReadProgress(Temp("full.bin") + ".progress").offset;
    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, 1024 * 1024);
    Started().CleanupOnErr(Book("", "full.bin"));
    EXPECT_FALSE(qvtest::Exists(Temp("full.bin")));
}

TEST_F(DownloadRecovery, ARefusedConnectionIsTriedOnceMoreAndTlsIsNotVerified) {
    LogCapture log;
    // Nobody listens there at first; the server comes up just ahead of the second attempt.
    const int port = qvtest::ClosedPort();
    std::unique_ptr<qvtest::HttpTestServer> late;
    qvtest::HookConnect(port, 2, [&late, port] {
        late = std::make_unique<qvtest::HttpTestServer>(
            std::vector<std::string>{"--http-port", std::to_string(port)});
    });
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/dl/file/26/30000";
    Downloader::StatusInfo end = Run(Book(url, "late.bin", 30000));
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(qvtest::ConnectAttempts(), 2);
    EXPECT_EQ(Sha256OfFile(Temp("late.bin")), Sha256OfPattern(26, 30000));

    // Only one more: a server that doesn't come is a failed transfer.
    const int nobody = qvtest::ClosedPort();
    qvtest::HookConnect(nobody, 0, nullptr);
    const std::string never = "http://127.0.0.1:" + std::to_string(nobody) + "/dl/file/27/10";
    end = Run(Book(never, "never.bin"));
    EXPECT_EQ(end.status, Downloader::DS_Error);
    EXPECT_EQ(end.error, Downloader::kErrorTransfer);
    EXPECT_EQ(qvtest::ConnectAttempts(), 2);
    EXPECT_TRUE(
        log.Has(kError, PidLine("File download failed [" + never + "] with curl error [7]")));

    // Downloads take any certificate, the test server's self-signed one too.
    end = Run(Book(server_.TlsUrl("/dl/file/28/50000"), "secure.bin", 50000));
    EXPECT_EQ(end.status, Downloader::DS_Finished);
    EXPECT_EQ(end.http_code, 200);
    EXPECT_EQ(Sha256OfFile(Temp("secure.bin")), Sha256OfPattern(28, 50000));
}

}  // namespace
