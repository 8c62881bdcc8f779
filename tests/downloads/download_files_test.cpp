// The files of a download, without the worker: the progress record, the preparation of a
// transfer, the space reservation, the write path and the final names.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "common_utilities/downloader.h"
#include "download_test_support.h"
#include "file_system_spy.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using quorvel::utilities::DownloadContext;
using quorvel::utilities::Downloader;
using quorvel::utilities::get_final_name;
using quorvel::utilities::kNotEnoughSpace;
using quorvel::utilities::prepareContext;
using quorvel::utilities::ProgressFile;
using quorvel::utilities::reserveFileSpace;
using qvtest::FileSize;
using qvtest::LogCapture;
using qvtest::PidLine;
using qvtest::ReadProgress;
using qvtest::Spy;
using qvtest::WriteFile;
using qvtest::WriteProgress;

constexpr int kError = 1;
constexpr off_t kMiB = 1024 * 1024;
const std::string kDir = "/mnt/ext1/Downloads";

class DownloadFiles : public ::testing::Test {
protected:
    void SetUp() override {
        ::mkdir(kDir.c_str(), 0777);
        qvtest::ResetSpy();
    }

    static std::string Path(const std::string& name) { return kDir + "/" + name; }

    // A small file system of its own for the folder (the test runs as root in its own mount
    // namespace); its free space in bytes.
    static unsigned long long MountSmallDisk(const std::string& dir, const char* size) {
        ::mkdir(dir.c_str(), 0777);
        std::string options = std::string("size=") + size;
        EXPECT_EQ(::mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()), 0) << errno;
        struct statvfs fs {};
        ::statvfs(dir.c_str(), &fs);
        return static_cast<unsigned long long>(fs.f_bsize) * fs.f_bavail;
    }
};

TEST_F(DownloadFiles, ProgressRecordIsCreatedReadBackAndRepaired) {
    const std::string data = Path("book.epub.downloading");
    const std::string record = data + ".progress";
    {
        ProgressFile progress;
        ASSERT_EQ(progress.Init(data), 0);
        EXPECT_EQ(progress.path(), record);
        EXPECT_EQ(FileSize(record), 8);
        EXPECT_EQ(ReadProgress(record).offset, 0);
        progress.data().offset = 123456;
        progress.data().total = 654321;
        ASSERT_EQ(progress.Write(), 0);
        // Rewritten in place: still 8 bytes.
        progress.data().offset = 7;
        ASSERT_EQ(progress.Write(), 0);
        EXPECT_EQ(FileSize(record), 8);
    }
    {
        ProgressFile progress;
        ASSERT_EQ(progress.Init(data), 0);
        EXPECT_EQ(progress.data().offset, 7);
        EXPECT_EQ(progress.data().total, 654321);
    }

    // Seven bytes (a write cut short) count as no record: zeros, written back whole.
    WriteFile(record, std::string("\x10\x00\x00\x00\x20\x00\x00", 7));
    {
        ProgressFile progress;
        ASSERT_EQ(progress.Init(data), 0);
        EXPECT_EQ(progress.data().offset, 0);
        EXPECT_EQ(progress.data().total, 0);
    }
    EXPECT_EQ(FileSize(record), 8);
    EXPECT_EQ(ReadProgress(record).total, 0);

    LogCapture log;
    ProgressFile::Cleanup(data);
    EXPECT_FALSE(qvtest::Exists(record));
    EXPECT_TRUE(log.Messages().empty());
    ProgressFile::Cleanup(data);  // nothing left to remove
    EXPECT_TRUE(log.Has(kError, PidLine("err:[-1] Failed to cleanup file with errno = [2]")));

    ProgressFile orphan;
    EXPECT_EQ(orphan.Init("/mnt/ext1/no/such/dir/x.downloading"), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition file_ != WRONG_FILE_DESCRIPTOR failed. Open "
                                        "filed with [2]")));
}

TEST_F(DownloadFiles, PreparationReservesAndFindsTheResumePoint) {
    const std::string data = Path("a.bin.downloading");
    {
        DownloadContext context;
        ASSERT_EQ(prepareContext(data, 1000, context), 0);
        EXPECT_EQ(FileSize(data), 1000);  // reserved up front
        EXPECT_EQ(ReadProgress(data + ".progress").offset, 0);
        EXPECT_EQ(::lseek(context.file_, 0, SEEK_CUR), 0);
    }

    // What a killed process leaves: 500 bytes, 300 of them recorded as good.
    ::truncate(data.c_str(), 500);
    WriteProgress(data + ".progress", 300, 0);
    {
        DownloadContext context;
        ASSERT_EQ(prepareContext(data, 1000, context), 0);
        EXPECT_EQ(::lseek(context.file_, 0, SEEK_CUR), 300);
        EXPECT_EQ(context.progress.data().offset, 300);
    }

    struct VoidRecord {
        off_t length;  // of the data file before the call
        int32_t offset;
        int32_t total;
        off_t file_size;
    };
    const VoidRecord void_records[] = {
        {500, 700, 0, 1000},     // beyond what the file held (measured before the reservation)
        {1000, 900, 800, 1000},  // beyond the recorded total
        {1000, 300, 0, 0},       // with no size known at all, nothing can be trusted
        {500, -1, 8, 1024},      // damaged: a negative resume point (found by fuzz_download_files)
    };
    for (const VoidRecord& r : void_records) {
        ::truncate(data.c_str(), r.length);
        WriteProgress(data + ".progress", r.offset, r.total);
        DownloadContext context;
        ASSERT_EQ(prepareContext(data, r.file_size, context), 0) << r.offset;
        EXPECT_EQ(context.progress.data().offset, 0) << r.offset;
        EXPECT_EQ(ReadProgress(data + ".progress").offset, 0) << r.offset;
        EXPECT_EQ(::lseek(context.file_, 0, SEEK_CUR), 0) << r.offset;
    }

    LogCapture log;
    DownloadContext nowhere;
    EXPECT_EQ(prepareContext("/mnt/ext1/no/such/dir/a.downloading", 10, nowhere), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"context.file_ != -1\", "
                                        "return(\"QV_FAILED\")]open failed with [2]")));
}

TEST_F(DownloadFiles, PreparationBringsTheNetworkUpOnlyWhenItIsDown) {
    const std::string data = Path("n.bin.downloading");
    int before = qvhost_net_connect_count();
    {
        DownloadContext context;
        ASSERT_EQ(prepareContext(data, 10, context), 0);
    }
    EXPECT_EQ(qvhost_net_connect_count(), before);

    qvhost_set_network_up(0);
    {
        DownloadContext context;
        ASSERT_EQ(prepareContext(data, 10, context), 0);
    }
    EXPECT_EQ(qvhost_net_connect_count(), before + 1);
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);

    // A network that can't be had is no reason to stop here: the transfer will tell.
    qvhost_set_network_reachable(0);
    qvhost_set_net_state(NET_STATE_CONNECTING);
    {
        DownloadContext context;
        EXPECT_EQ(prepareContext(data, 10, context), 0);
    }
    EXPECT_EQ(qvhost_net_connect_count(), before + 2);
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTING);
}

TEST_F(DownloadFiles, ReservationGrowsInTwentyMegabyteStepsWithSyncsBetween) {
    const std::string data = Path("big.downloading");
    int fd = ::open(data.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(reserveFileSpace(fd, 50 * kMiB), 0);
    ASSERT_EQ(Spy().fallocates.size(), 3u);
    EXPECT_EQ(Spy().fallocates[0].offset, 0);
    EXPECT_EQ(Spy().fallocates[0].length, 20 * kMiB);
    EXPECT_EQ(Spy().fallocates[1].offset, 20 * kMiB);
    EXPECT_EQ(Spy().fallocates[1].length, 20 * kMiB);
    EXPECT_EQ(Spy().fallocates[2].offset, 40 * kMiB);
    EXPECT_EQ(Spy().fallocates[2].length, 10 * kMiB);
    EXPECT_EQ(Spy().datasyncs, 2);  // between steps, not after the last
    EXPECT_EQ(FileSize(data), 50 * kMiB);

    // Only what is missing is reserved; nothing at all for a size that is there or unknown.
    qvtest::ResetSpy();
    ASSERT_EQ(::ftruncate(fd, 45 * kMiB), 0);
    ASSERT_EQ(reserveFileSpace(fd, 50 * kMiB), 0);
    ASSERT_EQ(Spy().fallocates.size(), 1u);
    EXPECT_EQ(Spy().fallocates[0].offset, 45 * kMiB);
    EXPECT_EQ(Spy().fallocates[0].length, 5 * kMiB);
    EXPECT_EQ(Spy().datasyncs, 0);
    qvtest::ResetSpy();
    EXPECT_EQ(reserveFileSpace(fd, 50 * kMiB), 0);
    EXPECT_EQ(reserveFileSpace(fd, 0), 0);
    EXPECT_TRUE(Spy().fallocates.empty());
    ::close(fd);
}

TEST_F(DownloadFiles, ReservationFailuresAreReportedByKind) {
    const std::string data = Path("fail.downloading");
    int fd = ::open(data.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    LogCapture log;

    // The disk fills up while the reservation runs (another process wrote meanwhile).
    Spy().fail_call = 2;
    Spy().fail_error = ENOSPC;
    EXPECT_EQ(reserveFileSpace(fd, 30 * kMiB), kNotEnoughSpace);
    EXPECT_TRUE(log.Has(kError, PidLine("posix_fallocate returns ENOSPC offset = [20971520], "
                                        "size= [10485760]")));

    ASSERT_EQ(::ftruncate(fd, 0), 0);
    qvtest::ResetSpy();
    Spy().fail_call = 1;
    Spy().fail_error = EIO;
    EXPECT_EQ(reserveFileSpace(fd, kMiB), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"0 == err\", return(\"QV_FAILED\")]"
                                        "posix_fallocate failed with [5]")));
    ::close(fd);

    EXPECT_EQ(reserveFileSpace(-1, kMiB), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"current != (off_t)-1\", "
                                        "return(\"QV_FAILED\")]lseek failed with [9]")));
}

TEST_F(DownloadFiles, AFullDiskRefusesTheWholeSizeAndLeavesNothing) {
    const std::string dir = "/mnt/ext1/small";
    unsigned long long free_bytes = MountSmallDisk(dir, "1m");
    ASSERT_GT(free_bytes, 0u);
    const std::string data = dir + "/book.epub.downloading";

    LogCapture log;
    {
        // Exactly the free space is not enough.
        DownloadContext context;
        EXPECT_EQ(prepareContext(data, static_cast<off_t>(free_bytes), context), kNotEnoughSpace);
        EXPECT_EQ(context.file_, -1);
    }
    EXPECT_FALSE(qvtest::Exists(data));
    EXPECT_FALSE(qvtest::Exists(data + ".progress"));
    EXPECT_TRUE(log.Has(kError, PidLine("Not enough space for [" + data + "]")));
    struct statvfs fs {};
    ::statvfs(dir.c_str(), &fs);
    EXPECT_TRUE(log.Has(kError, PidLine("fstatvfs tell than not anough memory.f_bsize = [" +
                                        std::to_string(fs.f_bsize) + "], f_bavail = [" +
                                        std::to_string(fs.f_bavail) + "], file_size =[" +
                                        std::to_string(free_bytes) + "]")));

    // A page less fits.
    DownloadContext context;
    EXPECT_EQ(prepareContext(data, static_cast<off_t>(free_bytes) - 4096, context), 0);
    EXPECT_EQ(FileSize(data), static_cast<off_t>(free_bytes) - 4096);
}

TEST_F(DownloadFiles, WritesAdvanceTheRecordAndSyncEveryTwentyMegabytes) {
    Downloader downloader;  // no worker: only its lock and its count are used
    DownloadContext context;
    context.downloader = &downloader;
    const std::string data = Path("w.downloading");
    ASSERT_EQ(prepareContext(data, 0, context), 0);

    std::vector<char> piece(kMiB, 'x');
    for (int i = 0; i < 45; ++i) {
        ASSERT_EQ(Downloader::WriteFunction(piece.data(), 1, piece.size(), &context), piece.size());
    }
    EXPECT_EQ(context.progress.data().offset, 45 * kMiB);
    EXPECT_EQ(ReadProgress(data + ".progress").offset, 45 * kMiB);
    EXPECT_EQ(FileSize(data), 45 * kMiB);
    EXPECT_EQ(downloader.GetStatus().current, 45 * kMiB);
    EXPECT_EQ(Spy().datasyncs, 2);  // after passing 20 MiB twice

    // libcurl counts in members of a size: the product is what is written.
    char tiny[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
    EXPECT_EQ(Downloader::WriteFunction(tiny, 2, 3, &context), 6u);
    EXPECT_EQ(context.progress.data().offset, 45 * kMiB + 6);

    LogCapture log;
    // A descriptor that can't be written: the short count makes libcurl give up.
    int writable = context.file_;
    context.file_ = ::open(data.c_str(), O_RDONLY);
    EXPECT_EQ(Downloader::WriteFunction(tiny, 1, 6, &context), 0u);
    EXPECT_TRUE(log.Has(
        kError, PidLine("Condition err == (int)size*nmemb failed. err = [-1], errno = [9]")));
    EXPECT_EQ(context.progress.data().offset, 45 * kMiB + 6);
    ::close(context.file_);
    context.file_ = writable;

    // The record holds 32-bit offsets: a file can't grow past them.
    context.progress.data().offset = INT32_MAX - 3;
    EXPECT_EQ(Downloader::WriteFunction(tiny, 1, 4, &context), 0u);
    EXPECT_EQ(context.progress.data().offset, INT32_MAX - 3);
    EXPECT_EQ(Downloader::WriteFunction(tiny, 1, 3, &context), 3u);
    EXPECT_EQ(context.progress.data().offset, INT32_MAX);
}

TEST_F(DownloadFiles, FinalNamesKeepTheirExtensionAndSkipTakenOnes) {
    ASSERT_EQ(::mkdir("/tmp/names", 0777), 0);
    ASSERT_EQ(::chdir("/tmp/names"), 0);
    ASSERT_EQ(::mkdir("/tmp/names/b.c", 0777), 0);
    for (const char* taken :
         {"book.epub", "book_1.epub", "x.fb2.zip", "x.tar.gz", "b.c/file", ".hidden", "README"}) {
        WriteFile(std::string("/tmp/names/") + taken, "taken");
    }
    EXPECT_EQ(get_final_name("/tmp/names/free.epub"), "/tmp/names/free.epub");
    EXPECT_EQ(get_final_name("/tmp/names/book.epub"), "/tmp/names/book_2.epub");
    EXPECT_EQ(get_final_name("/tmp/names/x.fb2.zip"), "/tmp/names/x_1.fb2.zip");
    EXPECT_EQ(get_final_name("/tmp/names/x.tar.gz"), "/tmp/names/x.tar_1.gz");
    EXPECT_EQ(get_final_name("/tmp/names/b.c/file"), "/tmp/names/b.c/file_1");
    EXPECT_EQ(get_final_name("/tmp/names/README"), "/tmp/names/README_1");
    EXPECT_EQ(get_final_name(".hidden"), ".hidden_1");
    // A seven-byte path with a dot counts as a ".fb2.zip" whose stem is the whole path.
    EXPECT_EQ(get_final_name("/q/a.bc"), "/q/a.bc.fb2.zip");
    EXPECT_EQ(get_final_name("/qq/a.bc"), "/qq/a.bc");
    // A name with a zero byte inside is the name before it, as the file system sees it; the
    // search for a free one ends (found by fuzz_download_files).
    EXPECT_EQ(get_final_name(std::string("/tmp/names/book.epub\0#\0@", 24)),
              "/tmp/names/book_2.epub");
}

}  // namespace
