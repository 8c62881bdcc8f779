// The three owners of downloads: the background queue, the blocking download, and the wget path.

#include <pthread.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common_utilities/download_manager.h"
#include "common_utilities/download_manager_fork.h"
#include "common_utilities/sync_downloader.h"
#include "download_test_support.h"
#include "log_capture.h"
#include "server_process.h"

namespace {

using quorvel::utilities::Downloader;
using quorvel::utilities::DownloadManager;
using quorvel::utilities::DownloadManagerFork;
using quorvel::utilities::FileToSync;
using quorvel::utilities::SyncDownloader;
using qvtest::Exists;
using qvtest::FileUrl;
using qvtest::LogCapture;
using qvtest::ReadFile;
using qvtest::Sha256OfFile;
using qvtest::Sha256OfPattern;

const std::string& kFolder = qvtest::kDownloadFolder;
using qvtest::Book;

// What completion callbacks reported, in order, with the final path as the manager had it then.
class Completions {
public:
    struct Entry {
        int result;
        std::string name;
        std::string final_path;
        bool on_caller_thread;
    };

    DownloadManager::CompletionFunction For(DownloadManager& manager) {
        std::thread::id caller = std::this_thread::get_id();
        return [this, &manager, caller](int result, const FileToSync& item) {
            Entry entry{result, item.name, result == 0 ? manager.GetFinalPath() : "",
                        std::this_thread::get_id() == caller};
            std::lock_guard<std::mutex> lock(mutex_);
            entries_.push_back(entry);
            changed_.notify_all();
        };
    }

    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return entries_.size() >= count; });
    }

    std::vector<Entry> Entries() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Entry> entries_;
};

class DownloadManagers : public ::testing::Test {
protected:
    qvtest::HttpTestServer server_;
};

TEST_F(DownloadManagers, TheQueueRunsItemsOneAtATimeInOrderPastFailures) {
    DownloadManager manager;
    ASSERT_EQ(manager.Init(kFolder), 0);
    Completions done;
    // The first is slow, so the others are added while it runs.
    const std::string slow = FileUrl(server_, 31, 100000, "rate=200000");
    ASSERT_EQ(manager.AddItem(Book(slow, "a.epub", 100000), done.For(manager)), 0);
    ASSERT_EQ(manager.AddItem(Book(server_.Url("/status/404"), "b.epub"), done.For(manager)), 0);
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 32, 3000), "a.epub"), done.For(manager)), 0);
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 33, 4000), "c.epub"), done.For(manager)), 0);
    // While the first runs, nothing else has begun.
    ASSERT_TRUE(qvtest::Eventually([&] { return manager.GetStatus().current > 0; }));
    EXPECT_FALSE(Exists(kFolder + "/b.epub.downloading"));
    EXPECT_FALSE(Exists(kFolder + "/c.epub.downloading"));

    ASSERT_TRUE(done.WaitFor(4));
    std::vector<Completions::Entry> entries = done.Entries();
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].name, "a.epub");
    EXPECT_EQ(entries[0].result, 0);
    EXPECT_EQ(entries[0].final_path, kFolder + "/a.epub");
    EXPECT_EQ(entries[1].name, "b.epub");
    EXPECT_EQ(entries[1].result, -1);
    EXPECT_EQ(entries[2].result, 0);
    EXPECT_EQ(entries[2].final_path, kFolder + "/a_1.epub");  // both of one name survive
    EXPECT_EQ(entries[3].name, "c.epub");
    EXPECT_EQ(entries[3].result, 0);
    for (const auto& entry : entries)
        EXPECT_FALSE(entry.on_caller_thread) << entry.name;

    EXPECT_EQ(Sha256OfFile(kFolder + "/a.epub"), Sha256OfPattern(31, 100000));
    EXPECT_EQ(Sha256OfFile(kFolder + "/a_1.epub"), Sha256OfPattern(32, 3000));
    EXPECT_EQ(Sha256OfFile(kFolder + "/c.epub"), Sha256OfPattern(33, 4000));
    // The failed item's files are gone.
    EXPECT_FALSE(Exists(kFolder + "/b.epub.downloading"));
    EXPECT_FALSE(Exists(kFolder + "/b.epub.downloading.progress"));

    // Added after the last ended: it starts at once. A refused item is told so, and the queue
    // goes on.
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 34, 10), ""), done.For(manager)), 0);
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 34, 10), "d.bin"), done.For(manager)), 0);
    ASSERT_TRUE(done.WaitFor(6));
    entries = done.Entries();
    EXPECT_EQ(entries[4].result, QV_INVAL);
    EXPECT_EQ(entries[5].result, 0);
    EXPECT_EQ(entries[5].final_path, kFolder + "/d.bin");
}

TEST_F(DownloadManagers, ItemsAddedFromManyThreadsAndFromCallbacksAllRunOnce) {
    DownloadManager manager;
    ASSERT_EQ(manager.Init(kFolder), 0);
    std::atomic<int> finished{0};
    std::atomic<int> failed{0};
    DownloadManager::CompletionFunction count = [&](int result, const FileToSync&) {
        (result == 0 ? finished : failed)++;
    };
    // A callback that queues a follow-up item from the worker itself.
    DownloadManager::CompletionFunction chain = [&](int result, const FileToSync& item) {
        count(result, item);
        manager.AddItem(Book(FileUrl(server_, 40, 500), "follow-" + item.name), count);
    };
    std::vector<std::thread> adders;
    for (int t = 0; t < 4; ++t) {
        adders.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                std::string name = "t" + std::to_string(t) + "-" + std::to_string(i) + ".bin";
                manager.AddItem(Book(FileUrl(server_, 41, 2000), name), i == 0 ? chain : count);
            }
        });
    }
    for (auto& adder : adders)
        adder.join();
    ASSERT_TRUE(qvtest::Eventually([&] { return finished + failed == 24; }));
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(finished, 24);
    EXPECT_EQ(qvtest::FileSize(kFolder + "/t3-4.bin"), 2000);
    EXPECT_EQ(qvtest::FileSize(kFolder + "/follow-t2-0.bin"), 500);
}

TEST_F(DownloadManagers, APauseOrAnAbortHoldsTheQueueUntilARetry) {
    DownloadManager manager;
    ASSERT_EQ(manager.Init(kFolder), 0);
    Completions done;
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 35, 200000, "rate=100000"), "held.bin"),
                              done.For(manager)),
              0);
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 36, 100), "next.bin"), done.For(manager)), 0);
    ASSERT_TRUE(qvtest::Eventually([&] { return manager.GetStatus().current > 0; }));

    LogCapture log;
    Downloader& downloader = manager.GetDownloader();
    ASSERT_EQ(downloader.Pause(nullptr), QV_OK);
    ASSERT_TRUE(qvtest::Eventually([&] { return log.Has(1, qvtest::PidLine("INVALID state")); }));
    EXPECT_EQ(manager.GetStatus().status, Downloader::DS_Paused);
    ASSERT_EQ(downloader.Abort(nullptr), QV_OK);
    ASSERT_TRUE(
        qvtest::Eventually([&] { return manager.GetStatus().status == Downloader::DS_Aborted; }));

    // Nothing moves on, also when another item comes.
    ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 37, 100), "third.bin"), done.For(manager)), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(done.Entries().empty());
    EXPECT_FALSE(Exists(kFolder + "/held.bin.downloading"));
    EXPECT_FALSE(Exists(kFolder + "/next.bin.downloading"));

    // A retry runs the held item again, and the queue goes on behind it.
    ASSERT_EQ(downloader.Retry(nullptr), QV_OK);
    ASSERT_TRUE(done.WaitFor(3));
    std::vector<Completions::Entry> entries = done.Entries();
    EXPECT_EQ(entries[0].name, "held.bin");
    EXPECT_EQ(entries[1].name, "next.bin");
    EXPECT_EQ(entries[2].name, "third.bin");
    for (const auto& entry : entries)
        EXPECT_EQ(entry.result, 0) << entry.name;
    EXPECT_EQ(Sha256OfFile(kFolder + "/held.bin"), Sha256OfPattern(35, 200000));
}

TEST_F(DownloadManagers, ItemsStillWaitingAreDroppedWithTheManager) {
    std::atomic<int> told{0};
    {
        DownloadManager manager;
        ASSERT_EQ(manager.Init(kFolder), 0);
        auto tell = [&](int, const FileToSync&) { ++told; };
        ASSERT_EQ(manager.AddItem(
                      Book(FileUrl(server_, 42, 400000, "rate=100000"), "long.bin", 400000), tell),
                  0);
        ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 43, 10), "next.bin"), tell), 0);
        ASSERT_TRUE(qvtest::Eventually([&] { return manager.GetStatus().current > 0; }));
    }
    EXPECT_EQ(told, 0);
    // The transfer under way keeps its files for the next run of the application.
    EXPECT_GT(qvtest::ReadProgress(kFolder + "/long.bin.downloading.progress").offset, 0);
    EXPECT_FALSE(Exists(kFolder + "/next.bin.downloading"));

    // Before Init there is no queue: adding fails and nothing is kept.
    DownloadManager idle;
    EXPECT_EQ(idle.AddItem(Book(FileUrl(server_, 43, 10), "x.bin"), nullptr), QV_NOT_IMPEMENTED);
}

TEST_F(DownloadManagers, SyncDownloaderBlocksReportsAndCancels) {
    SyncDownloader sync(kFolder);
    ASSERT_EQ(sync.Download(FileUrl(server_, 51, 50000), "one.bin"), 0);
    EXPECT_EQ(sync.GetLastPath(), kFolder + "/one.bin");
    EXPECT_EQ(sync.GetLastStatus().status, Downloader::DS_Finished);
    EXPECT_EQ(sync.GetLastStatus().http_code, 200);
    EXPECT_EQ(Sha256OfFile(kFolder + "/one.bin"), Sha256OfPattern(51, 50000));

    // No transfer: the numbers are left alone.
    bool active = true;
    std::string url;
    int total = -7, current = -7;
    ASSERT_EQ(sync.GetProgress(&active, &url, &total, &current), 0);
    EXPECT_FALSE(active);
    EXPECT_EQ(url, FileUrl(server_, 51, 50000));
    EXPECT_EQ(total, -7);
    EXPECT_EQ(current, -7);
    EXPECT_EQ(sync.GetProgress(nullptr, &url, &total, &current), QV_INVAL);

    // An HTTP error: -1, the reason in the last status, nothing left behind.
    EXPECT_EQ(sync.Download(server_.Url("/status/403"), "denied.bin"), -1);
    EXPECT_EQ(sync.GetLastStatus().error, Downloader::kErrorHttp);
    EXPECT_EQ(sync.GetLastStatus().http_code, 403);
    EXPECT_FALSE(Exists(kFolder + "/denied.bin.downloading"));

    // Cancelled from another thread while it runs; progress is visible meanwhile.
    const std::string slow = FileUrl(server_, 52, 400000, "rate=100000");
    std::atomic<bool> saw_progress{false};
    std::thread canceller([&] {
        qvtest::Eventually([&] {
            bool running = false;
            std::string current_url;
            int bytes_total = 0, bytes_now = 0;
            sync.GetProgress(&running, &current_url, &bytes_total, &bytes_now);
            if (running && bytes_now > 0 && bytes_total == 400000 && current_url == slow) {
                saw_progress = true;
            }
            return saw_progress.load();
        });
        // A second download while one runs is refused.
        EXPECT_NE(sync.Download(FileUrl(server_, 53, 10), "other.bin"), 0);
        sync.CancelCurrent();
    });
    EXPECT_EQ(sync.Download(slow, "slow.bin"), -1);
    canceller.join();
    EXPECT_TRUE(saw_progress);
    EXPECT_EQ(sync.GetLastStatus().status, Downloader::DS_Aborted);
    EXPECT_FALSE(Exists(kFolder + "/slow.bin.downloading"));

    // The folder can change between downloads.
    sync.SetSyncFolder("/mnt/ext1/Other");
    ASSERT_EQ(sync.Download(FileUrl(server_, 55, 10), "moved.bin"), 0);
    EXPECT_EQ(sync.GetLastPath(), "/mnt/ext1/Other/moved.bin");
}

// What a shell would act on, in a URL and a file name that are legal all the same.
constexpr char kHostileTarget[] = "/echo?q=$HOME'a\"b c`touch /tmp/owned`$(touch /tmp/owned)";
constexpr char kHostileName[] = "it's $HOME \"q\" `x`.txt";

// The request target as wget sends it: the characters a URL may not carry, percent-encoded.
std::string SentTarget(const std::string& target) {
    static const std::string kEncoded = " \"`";
    std::string sent;
    for (char c : target) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(c));
        sent += kEncoded.find(c) == std::string::npos ? std::string(1, c) : std::string(hex);
    }
    return sent;
}

TEST_F(DownloadManagers, TheForkManagerHandsItemsToWget) {
    ASSERT_EQ(::mkdir(kFolder.c_str(), 0777), 0);
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<int, std::string>> results;
    std::thread::id caller = std::this_thread::get_id();
    bool off_caller_thread = true;
    auto record = [&](int result, FileToSync file) {
        std::lock_guard<std::mutex> lock(mutex);
        off_caller_thread = off_caller_thread && std::this_thread::get_id() != caller;
        results.emplace_back(result, file.name);
        changed.notify_all();
    };
    {
        DownloadManagerFork manager;
        ASSERT_EQ(manager.Init(kFolder), 0);
        EXPECT_EQ(manager.Init(kFolder), QV_WRONG_STATE);
        ASSERT_EQ(manager.AddItem(Book(FileUrl(server_, 61, 70000), "w.bin"), record), 0);
        ASSERT_EQ(manager.AddItem(Book(server_.Url("/status/404"), "gone.bin"), record), 0);
        ASSERT_EQ(manager.AddItem(Book(server_.Url(kHostileTarget), kHostileName), record), 0);
        EXPECT_EQ(manager.AddItem(Book(server_.Url("/echo"), "none.bin"), nullptr), QV_INVAL);
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(60), [&] { return results.size() == 3; }));
    }
    EXPECT_TRUE(off_caller_thread);
    EXPECT_EQ(results[0], std::make_pair(0, std::string("w.bin")));
    EXPECT_EQ(Sha256OfFile(kFolder + "/w.bin"), Sha256OfPattern(61, 70000));
    EXPECT_FALSE(Exists(kFolder + "/w.bin.download"));
    // A failure keeps wget's partial file; there is no resume on this path.
    EXPECT_EQ(results[1], std::make_pair(-1, std::string("gone.bin")));
    EXPECT_FALSE(Exists(kFolder + "/gone.bin"));
    EXPECT_TRUE(Exists(kFolder + "/gone.bin.download"));
    // Quotes, blanks, $ and backquotes are legal in a URL and a name: both reach wget as they
    // stand, and nothing in them runs.
    EXPECT_EQ(results[2], std::make_pair(0, std::string(kHostileName)));
    EXPECT_NE(ReadFile(kFolder + "/" + kHostileName).find("target " + SentTarget(kHostileTarget)),
              std::string::npos);
    EXPECT_FALSE(Exists("/tmp/owned"));
}

// A wget of the test's own, first on the PATH: it writes a part of the file, then ends as the URL
// says: "/ok" well, "/fails" with status 8 (a server error), "/killed" by a signal.
void InstallFakeWget() {
    const std::string bin = "/tmp/fake-bin";
    ASSERT_EQ(::mkdir(bin.c_str(), 0755), 0);
    qvtest::WriteFile(bin + "/wget",
                      "#!/bin/sh\n"
                      "# wget -O FILE [--] URL: the URL is the last argument\n"
                      "for url; do :; done\n"
                      "printf 'part of %s' \"$url\" > \"$2\"\n"
                      "case \"$url\" in\n"
                      "  */fails) exit 8 ;;\n"
                      "  */killed) kill -KILL $$ ;;\n"
                      "esac\n");
    ASSERT_EQ(::chmod((bin + "/wget").c_str(), 0755), 0);
    ASSERT_EQ(::setenv("PATH", (bin + ":" + std::getenv("PATH")).c_str(), 1), 0);
}

TEST(DownloadManagerFork, OnlyAWgetThatEndsWellGivesTheFile) {
    ASSERT_NO_FATAL_FAILURE(InstallFakeWget());
    ASSERT_EQ(::mkdir(kFolder.c_str(), 0777), 0);
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, int> results;
    {
        DownloadManagerFork manager;
        ASSERT_EQ(manager.Init(kFolder), 0);
        for (const char* name : {"ok", "fails", "killed"}) {
            auto record = [&](int result, FileToSync file) {
                std::lock_guard<std::mutex> lock(mutex);
                results[file.name] = result;
                changed.notify_all();
            };
            ASSERT_EQ(manager.AddItem(Book(std::string("http://127.0.0.1/") + name, name), record),
                      0);
        }
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(
            changed.wait_for(lock, std::chrono::seconds(30), [&] { return results.size() == 3; }));
    }
    EXPECT_EQ(results["ok"], 0);
    EXPECT_EQ(ReadFile(kFolder + "/ok"), "part of http://127.0.0.1/ok");
    EXPECT_FALSE(Exists(kFolder + "/ok.download"));
    // Neither a failed wget nor a killed one has the whole file: what it wrote keeps its
    // temporary name.
    for (const char* name : {"fails", "killed"}) {
        EXPECT_EQ(results[name], -1) << name;
        EXPECT_FALSE(Exists(kFolder + "/" + name)) << name;
        EXPECT_TRUE(Exists(kFolder + "/" + name + ".download")) << name;
    }
}

}  // namespace
