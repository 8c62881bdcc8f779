// The Downloader against the loopback test server: the commands and their guards, the states and
// the contexts each notification carries, what the server's headers set, and what stays on disk.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common_utilities/downloader.h"
#include "download_test_support.h"
#include "log_capture.h"
#include "moorglass_host.h"
#include "server_process.h"

namespace {

using quorvel::utilities::Downloader;
using quorvel::utilities::FileToSync;
using qvtest::FileSize;
using qvtest::FileUrl;
using qvtest::LogCapture;
using qvtest::Notification;
using qvtest::NotificationRecorder;
using qvtest::PidLine;
using qvtest::ReadProgress;
using qvtest::Sha256OfFile;
using qvtest::Sha256OfPattern;

constexpr int kError = 1, kNotice = 3, kInfo = 4;
const std::string& kFolder = qvtest::kDownloadFolder;
using qvtest::Book;
using qvtest::Temp;

// Distinct addresses to hand over as contexts.
int g_start_tag, g_pause_tag, g_abort_tag, g_retry_tag, g_second_tag;
void* const kStart = &g_start_tag;
void* const kPause = &g_pause_tag;
void* const kAbort = &g_abort_tag;
void* const kRetry = &g_retry_tag;
void* const kSecond = &g_second_tag;

// The statuses of the recorded notifications from `from` on.
std::vector<Downloader::Status> Statuses(const std::vector<Notification>& all, size_t from = 0) {
    std::vector<Downloader::Status> statuses;
    for (size_t i = from; i < all.size(); ++i)
        statuses.push_back(all[i].status.status);
    return statuses;
}

class DownloaderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(downloader_.Init(&recorder_), QV_OK); }

    // Starts and waits for the end of the transfer; the notification that ended it.
    Notification Run(const FileToSync& book, void* context = nullptr) {
        size_t from = recorder_.Count();
        EXPECT_EQ(downloader_.Start(book, kFolder, context), QV_OK);
        EXPECT_TRUE(recorder_.WaitFor([from](const std::vector<Notification>& all) {
            return all.size() >= from + 2;
        })) << server_.Output();
        return recorder_.Notifications()[from + 1];
    }

    qvtest::HttpTestServer server_;
    // Before the downloader, so that it outlives the worker's last notification.
    NotificationRecorder recorder_{downloader_};
    Downloader downloader_;
};

TEST_F(DownloaderTest, DownloadsIntoTheFolderAndMovesTheFileIntoPlace) {
    LogCapture log;
    const size_t size = 300000;
    FileToSync book = Book(FileUrl(server_, 7, size), "book.epub", size);
    Notification end = Run(book, kStart);

    std::vector<Notification> all = recorder_.Notifications();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].context, kStart);
    EXPECT_EQ(all[0].status.status, Downloader::DS_Downloading);
    EXPECT_EQ(end.context, nullptr);
    EXPECT_EQ(end.status.status, Downloader::DS_Finished);
    EXPECT_EQ(end.status.http_code, 200);
    EXPECT_EQ(end.status.current, static_cast<int>(size));
    EXPECT_EQ(end.status.total, static_cast<int>(size));
    EXPECT_EQ(end.status.effective_url, book.url);
    EXPECT_EQ(end.status.content_type, "application/octet-stream");
    EXPECT_TRUE(log.Has(kInfo, PidLine("Start downloading [" + book.url + "]")));

    // The folder was made; the data waits under its temporary name until the owner moves it.
    EXPECT_EQ(Sha256OfFile(Temp("book.epub")), Sha256OfPattern(7, size));
    EXPECT_EQ(ReadProgress(Temp("book.epub") + ".progress").offset, static_cast<int>(size));
    downloader_.Cleanup(book);
    EXPECT_EQ(downloader_.GetFinalPath(), kFolder + "/book.epub");
    EXPECT_EQ(Sha256OfFile(kFolder + "/book.epub"), Sha256OfPattern(7, size));
    EXPECT_FALSE(qvtest::Exists(Temp("book.epub")));
    EXPECT_FALSE(qvtest::Exists(Temp("book.epub") + ".progress"));

    // The same name again keeps both; overwriting replaces.
    FileToSync second = Book(FileUrl(server_, 8, 1000), "book.epub", 1000);
    EXPECT_EQ(Run(second).status.status, Downloader::DS_Finished);
    downloader_.Cleanup(second);
    EXPECT_EQ(downloader_.GetFinalPath(), kFolder + "/book_1.epub");
    EXPECT_EQ(FileSize(kFolder + "/book_1.epub"), 1000);
    downloader_.SetOverwrite(true);
    EXPECT_EQ(Run(second).status.status, Downloader::DS_Finished);
    downloader_.Cleanup(second);
    EXPECT_EQ(downloader_.GetFinalPath(), kFolder + "/book.epub");
    EXPECT_EQ(FileSize(kFolder + "/book.epub"), 1000);

    // Nothing to move: both files stay as they were, and no final path is claimed.
    downloader_.Cleanup(second);
    EXPECT_EQ(downloader_.GetFinalPath(), "");
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"0 == err\", return]")));
}

TEST_F(DownloaderTest, TheServerHasTheLastWordOnSizeNameAndType) {
    LogCapture log;
    // Unknown size: the total follows the header, and the record learns it.
    FileToSync unknown = Book(FileUrl(server_, 1, 5000), "unknown.bin");
    Notification end = Run(unknown);
    EXPECT_EQ(end.status.status, Downloader::DS_Finished);
    EXPECT_EQ(end.status.total, 5000);
    EXPECT_EQ(FileSize(Temp("unknown.bin")), 5000);
    EXPECT_EQ(ReadProgress(Temp("unknown.bin") + ".progress").total, 5000);

    // An estimate too big: the reservation is cut back to what came.
    FileToSync too_big = Book(FileUrl(server_, 2, 5000), "big.bin", 20000);
    EXPECT_EQ(Run(too_big).status.status, Downloader::DS_Finished);
    EXPECT_EQ(FileSize(Temp("big.bin")), 5000);
    EXPECT_EQ(Sha256OfFile(Temp("big.bin")), Sha256OfPattern(2, 5000));

    // Redirects with bodies of their own: the last length wins, and the URL is the last one.
    FileToSync moved =
        Book(FileUrl(server_, 3, 4000,
                     "hops=3&type=application%2Fepub%2Bzip&disposition=attachment%3B%20filename%3D"
                     "%22a%20b.epub%22"),
             "moved.epub");
    end = Run(moved);
    EXPECT_EQ(end.status.status, Downloader::DS_Finished);
    EXPECT_EQ(end.status.total, 4000);
    EXPECT_EQ(end.status.http_code, 200);
    EXPECT_NE(end.status.effective_url.find("hops=0"), std::string::npos);
    EXPECT_EQ(end.status.filename, "a b.epub");
    EXPECT_EQ(end.status.content_type, "application/epub+zip");
    EXPECT_EQ(FileSize(Temp("moved.epub")), 4000);

    // Only a quoted name is found; the file keeps the item's name in any case.
    FileToSync bare =
        Book(FileUrl(server_, 4, 10, "disposition=attachment%3B%20filename%3Da.epub"), "bare.epub");
    end = Run(bare);
    EXPECT_EQ(end.status.filename, "");
    EXPECT_TRUE(log.Has(kError, PidLine("Failed to match filename in header")));
    downloader_.Cleanup(bare);
    EXPECT_EQ(downloader_.GetFinalPath(), kFolder + "/bare.epub");

    EXPECT_EQ(Downloader::FindFilename("Content-Disposition: inline; FILENAME=  \"x.pdf\"\r\n"),
              "x.pdf");
}

TEST_F(DownloaderTest, ACompleteRecordFinishesWithoutTheNetwork) {
    FileToSync book = Book(FileUrl(server_, 5, 2000), "done.bin", 2000);
    ASSERT_EQ(Run(book).status.status, Downloader::DS_Finished);
    long requests = server_.RequestCount();

    // Finished but not yet moved: a retry finds the record complete.
    size_t from = recorder_.Count();
    ASSERT_EQ(downloader_.Retry(kRetry), QV_OK);
    ASSERT_TRUE(recorder_.WaitForCount(from + 2));
    std::vector<Notification> all = recorder_.Notifications();
    EXPECT_EQ(all[from].context, kRetry);
    EXPECT_EQ(all[from].status.status, Downloader::DS_Downloading);
    EXPECT_EQ(all[from + 1].status.status, Downloader::DS_Finished);
    EXPECT_EQ(all[from + 1].status.http_code, 200);  // as it was
    EXPECT_EQ(all[from + 1].status.current, 2000);
    EXPECT_EQ(server_.RequestCount(), requests);

    // Left by another process: a record that says the file is whole, no status ever seen here.
    Downloader fresh;
    NotificationRecorder fresh_recorder(fresh);
    ASSERT_EQ(fresh.Init(&fresh_recorder), QV_OK);
    qvtest::WritePatternFile(Temp("other.bin"), 6, 3000);
    qvtest::WriteProgress(Temp("other.bin") + ".progress", 3000, 3000);
    ASSERT_EQ(fresh.Start(Book(FileUrl(server_, 6, 3000), "other.bin"), kFolder, nullptr), QV_OK);
    ASSERT_TRUE(fresh_recorder.WaitForStatus(Downloader::DS_Finished));
    EXPECT_EQ(fresh.GetStatus().http_code, 0);
    EXPECT_EQ(server_.RequestCount(), requests);
}

TEST_F(DownloaderTest, FailuresEndInTheirKindAndLeaveTheFilesToTheOwner) {
    LogCapture log;
    FileToSync missing = Book(server_.Url("/status/404"), "missing.epub", 50);
    Notification end = Run(missing, kStart);
    EXPECT_EQ(end.status.status, Downloader::DS_Error);
    EXPECT_EQ(end.status.error, Downloader::kErrorHttp);
    EXPECT_EQ(end.status.http_code, 404);
    EXPECT_TRUE(log.Has(kError, PidLine("File download failed with http error [404]")));
    EXPECT_EQ(ReadProgress(Temp("missing.epub") + ".progress").offset, 0);
    std::vector<char> body = downloader_.getErrorBody(missing);
    EXPECT_EQ(std::string(body.begin(), body.end()), "status 404");

    // After an error only a new Start goes on.
    EXPECT_EQ(downloader_.Retry(nullptr), QV_WRONG_STATE);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"DS_Idle == status_ || DS_Finished == "
                                        "status_ || DS_Aborted == status_\", "
                                        "return(\"QV_WRONG_STATE\")]")));
    downloader_.CleanupOnErr(missing);
    EXPECT_FALSE(qvtest::Exists(Temp("missing.epub")));
    EXPECT_FALSE(qvtest::Exists(Temp("missing.epub") + ".progress"));
    EXPECT_TRUE(downloader_.getErrorBody(missing).empty());

    // A server that is not there: libcurl's failure, no status.
    const std::string closed = "http://127.0.0.1:" + std::to_string(qvtest::ClosedPort());
    FileToSync nowhere = Book(closed + "/book.epub", "nowhere.epub");
    end = Run(nowhere);
    EXPECT_EQ(end.status.status, Downloader::DS_Error);
    EXPECT_EQ(end.status.error, Downloader::kErrorTransfer);
    EXPECT_EQ(end.status.http_code, 0);
    EXPECT_TRUE(
        log.Has(kError, PidLine("File download failed [" + nowhere.url + "] with curl error [7]")));
    EXPECT_TRUE(qvtest::Exists(Temp("nowhere.epub")));  // kept for a later attempt

    // An error body of a megabyte or more is not handed back.
    FileToSync large = Book(FileUrl(server_, 9, 1 << 20), "large.bin", 1 << 20);
    ASSERT_EQ(Run(large).status.status, Downloader::DS_Finished);
    EXPECT_TRUE(downloader_.getErrorBody(large).empty());
    qvtest::WritePatternFile(Temp("large.bin"), 9, (1 << 20) - 1);
    EXPECT_EQ(downloader_.getErrorBody(large).size(), static_cast<size_t>((1 << 20) - 1));
}

TEST_F(DownloaderTest, CommandsWaitWhileTheWorkerIsBusyAndAbortOverridesThem) {
    LogCapture log;
    FileToSync book = Book(FileUrl(server_, 11, 200000, "rate=100000"), "slow.bin", 200000);
    recorder_.HoldNext();
    ASSERT_EQ(downloader_.Start(book, kFolder, kStart), QV_OK);
    ASSERT_TRUE(recorder_.WaitUntilHeld());  // inside the notification of the start

    // Downloading, nothing pending.
    EXPECT_EQ(downloader_.Start(book, kFolder, nullptr), QV_WRONG_STATE);
    EXPECT_EQ(downloader_.Resume(nullptr), QV_WRONG_STATE);
    EXPECT_EQ(downloader_.Retry(nullptr), QV_WRONG_STATE);

    ASSERT_EQ(downloader_.Pause(kPause), QV_OK);
    // A pending command comes first, whatever the status.
    EXPECT_EQ(downloader_.Pause(nullptr), QV_BUSY);
    EXPECT_EQ(downloader_.Start(book, kFolder, nullptr), QV_BUSY);
    EXPECT_EQ(downloader_.Retry(nullptr), QV_BUSY);
    EXPECT_TRUE(
        log.Has(kError, PidLine("Condition: \"DC_None == command_\", return(\"QV_BUSY\")]")));

    // Abort replaces the pause; its context is reported before the abort's own.
    ASSERT_EQ(downloader_.Abort(kAbort), QV_OK);
    EXPECT_EQ(downloader_.Abort(nullptr), QV_WRONG_STATE);
    EXPECT_TRUE(log.Has(
        kError, PidLine("Condition: \"DC_Abort != command_\", return(\"QV_WRONG_STATE\")]")));
    EXPECT_TRUE(log.Has(kNotice, PidLine("Downloader::Abort called")));
    EXPECT_TRUE(log.Has(kInfo, PidLine("Abort downloading")));

    recorder_.Release();
    ASSERT_TRUE(recorder_.WaitForStatus(Downloader::DS_Aborted));
    std::vector<Notification> all = recorder_.Notifications();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].context, kStart);
    EXPECT_EQ(all[1].context, kPause);
    EXPECT_EQ(all[2].context, kAbort);
    EXPECT_EQ(all[2].status.status, Downloader::DS_Aborted);
    EXPECT_TRUE(log.Has(kNotice, PidLine("Aborting from progress function")));
    EXPECT_FALSE(qvtest::Exists(Temp("slow.bin")));
    EXPECT_FALSE(qvtest::Exists(Temp("slow.bin") + ".progress"));
}

TEST_F(DownloaderTest, APauseRepeatsAtEveryTickUntilAbortEndsIt) {
    FileToSync book = Book(FileUrl(server_, 12, 400000, "rate=100000"), "paused.bin", 400000);
    ASSERT_EQ(downloader_.Start(book, kFolder, kStart), QV_OK);
    ASSERT_TRUE(qvtest::Eventually([&] { return downloader_.GetStatus().current > 0; }));

    size_t from = recorder_.Count();
    ASSERT_EQ(downloader_.Pause(kPause), QV_OK);
    ASSERT_TRUE(recorder_.WaitForCount(from + 3));
    std::vector<Notification> all = recorder_.Notifications();
    EXPECT_EQ(all[from].context, kPause);
    for (size_t i = from; i < all.size(); ++i) {
        EXPECT_EQ(all[i].status.status, Downloader::DS_Paused) << i;
        if (i > from) {
            EXPECT_EQ(all[i].context, nullptr) << i;
        }
    }
    // Held: nothing more arrives, and the pause stands against every other command.
    int held_at = downloader_.GetStatus().current;
    ASSERT_TRUE(recorder_.WaitForCount(recorder_.Count() + 2));
    EXPECT_EQ(downloader_.GetStatus().current, held_at);
    EXPECT_LT(held_at, 400000);
    EXPECT_EQ(downloader_.Resume(nullptr), QV_BUSY);
    EXPECT_EQ(downloader_.Start(book, kFolder, nullptr), QV_BUSY);

    from = recorder_.Count();
    ASSERT_EQ(downloader_.Abort(kAbort), QV_OK);
    ASSERT_TRUE(recorder_.WaitForStatus(Downloader::DS_Aborted, from));
    all = recorder_.Notifications();
    EXPECT_EQ(all.back().context, kAbort);  // the standing pause had no context left to report
    EXPECT_FALSE(qvtest::Exists(Temp("paused.bin")));

    // With no transfer an abort only brings the status back to idle, and once there it stays.
    from = recorder_.Count();
    ASSERT_EQ(downloader_.Abort(kSecond), QV_OK);
    ASSERT_TRUE(recorder_.WaitForCount(from + 1));
    EXPECT_EQ(recorder_.Notifications()[from].status.status, Downloader::DS_Idle);
    EXPECT_EQ(recorder_.Notifications()[from].context, kSecond);
    ASSERT_EQ(downloader_.Abort(kAbort), QV_OK);
    ASSERT_TRUE(recorder_.WaitForCount(from + 2));
    EXPECT_EQ(recorder_.Notifications()[from + 1].status.status, Downloader::DS_Idle);
    EXPECT_EQ(downloader_.Pause(nullptr), QV_WRONG_STATE);
}

TEST_F(DownloaderTest, AnAbortBeforeTheStartIsTakenUpReportsBoth) {
    FileToSync book = Book(FileUrl(server_, 13, 1000), "quick.bin", 1000);
    ASSERT_EQ(Run(book).status.status, Downloader::DS_Finished);
    long requests = server_.RequestCount();

    // The worker is held in the notification of an abort (Finished -> Idle); a start and an
    // abort pile up behind it, and the second abort replaces the start.
    size_t from = recorder_.Count();
    recorder_.HoldNext();
    ASSERT_EQ(downloader_.Abort(kRetry), QV_OK);
    ASSERT_TRUE(recorder_.WaitUntilHeld());
    ASSERT_EQ(downloader_.Start(book, kFolder, kSecond), QV_OK);
    ASSERT_EQ(downloader_.Abort(kAbort), QV_OK);
    recorder_.Release();
    ASSERT_TRUE(recorder_.WaitForCount(from + 3));
    std::vector<Notification> all = recorder_.Notifications();
    EXPECT_EQ(all[from].context, kRetry);
    EXPECT_EQ(all[from + 1].context, kSecond);  // the start that never ran is told once
    EXPECT_EQ(all[from + 2].context, kAbort);
    EXPECT_EQ(Statuses(all, from), std::vector<Downloader::Status>(3, Downloader::DS_Idle));
    EXPECT_EQ(server_.RequestCount(), requests);
    EXPECT_TRUE(qvtest::Exists(Temp("quick.bin")));  // no transfer ran, nothing was removed
}

TEST_F(DownloaderTest, GuardsBeforeInitAndOnBadItems) {
    LogCapture log;
    Downloader bare;
    FileToSync book = Book(FileUrl(server_, 1, 10), "x.bin");
    EXPECT_EQ(bare.Start(book, kFolder, nullptr), QV_NOT_INITIALIZED);
    EXPECT_EQ(bare.Abort(nullptr), QV_NOT_INITIALIZED);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"cb_\", return(\"QV_NOT_INITIALIZED\")]")));
    EXPECT_EQ(bare.GetStatus().status, Downloader::DS_Idle);
    EXPECT_EQ(bare.Init(nullptr), QV_WRONG_STATE);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"cb && !cb_\", return(\"QV_WRONG_STATE\")]")));

    EXPECT_EQ(downloader_.Init(&recorder_), QV_WRONG_STATE);
    EXPECT_EQ(downloader_.Retry(nullptr), QV_WRONG_STATE);  // nothing to repeat yet
    EXPECT_EQ(downloader_.Start(Book(book.url, ""), kFolder, nullptr), QV_INVAL);
    EXPECT_EQ(downloader_.Start(Book(book.url, "x.bin", -1), kFolder, nullptr), QV_INVAL);
    EXPECT_EQ(recorder_.Count(), 0u);
}

TEST_F(DownloaderTest, CookieHeadersAndUserAgentGoWithEveryTransfer) {
    downloader_.SetCookie("session", "abc");
    downloader_.AddHeader("X-Token", "t1");
    downloader_.AddHeader("Accept-Language", "de");
    FileToSync echo = Book(server_.Url("/echo"), "echo.txt");
    ASSERT_EQ(Run(echo).status.status, Downloader::DS_Finished);
    std::string sent = qvtest::ReadFile(Temp("echo.txt"));
    EXPECT_NE(sent.find("header Cookie: session=abc\n"), std::string::npos) << sent;
    EXPECT_NE(sent.find("header X-Token: t1\n"), std::string::npos) << sent;
    EXPECT_NE(sent.find("header Accept-Language: de\n"), std::string::npos) << sent;
    EXPECT_NE(sent.find("header User-Agent: Quorvel\n"), std::string::npos) << sent;
    downloader_.CleanupOnErr(echo);

    downloader_.ClearHeaders();
    downloader_.SetCookie("session", "def");
    ASSERT_EQ(Run(echo).status.status, Downloader::DS_Finished);
    sent = qvtest::ReadFile(Temp("echo.txt"));
    EXPECT_EQ(sent.find("X-Token"), std::string::npos) << sent;
    EXPECT_NE(sent.find("header Cookie: session=def\n"), std::string::npos) << sent;
}

TEST_F(DownloaderTest, ThePlatformsProxyIsUsed) {
    qvhost_set_proxy(server_.Url("").c_str());
    FileToSync far = Book("http://books.invalid/catalog/1.epub", "proxied.txt");
    ASSERT_EQ(Run(far).status.status, Downloader::DS_Finished);
    EXPECT_EQ(qvtest::ReadFile(Temp("proxied.txt")), "proxied http://books.invalid/catalog/1.epub");
    qvhost_set_proxy(nullptr);
}

TEST_F(DownloaderTest, StopInterruptsATransferAndKeepsItsFiles) {
    FileToSync book = Book(FileUrl(server_, 14, 300000, "rate=100000"), "stopped.bin", 300000);
    ASSERT_EQ(downloader_.Start(book, kFolder, kStart), QV_OK);
    ASSERT_TRUE(qvtest::Eventually([&] { return downloader_.GetStatus().current > 0; }));
    size_t seen = recorder_.Count();
    ASSERT_EQ(downloader_.Stop(), QV_OK);
    EXPECT_EQ(recorder_.Count(), seen);  // nothing more was told
    EXPECT_EQ(downloader_.Start(book, kFolder, nullptr), QV_NOT_INITIALIZED);
    int32_t kept = ReadProgress(Temp("stopped.bin") + ".progress").offset;
    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, 300000);

    // Another downloader takes it up where it stopped, at full speed.
    Downloader next;
    NotificationRecorder next_recorder(next);
    ASSERT_EQ(next.Init(&next_recorder), QV_OK);
    ASSERT_EQ(
        next.Start(Book(FileUrl(server_, 14, 300000), "stopped.bin", 300000), kFolder, nullptr),
        QV_OK);
    ASSERT_TRUE(next_recorder.WaitForStatus(Downloader::DS_Finished));
    EXPECT_EQ(qvtest::DownloadStat(server_, "last-range"), "bytes=" + std::to_string(kept) + "-");
    EXPECT_EQ(Sha256OfFile(Temp("stopped.bin")), Sha256OfPattern(14, 300000));
}

}  // namespace
