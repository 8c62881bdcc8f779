// The Bluetooth transfer list on its SQLite file, shared by two processes.

#include "common_utilities/bluetooth_download_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <stdexcept>

#include "child_process.h"

namespace {

using quorvel::utilities::BluetoothDownloadInfo;
using quorvel::utilities::FileToSend;
using Status = BluetoothDownloadInfo::Status;

bool Same(const FileToSend& a, const FileToSend& b) {
    return a.filename == b.filename && a.destination == b.destination;
}

TEST(BluetoothDownloadInfo, TwoProcessesShareTheList) {
    const std::string path = BluetoothDownloadInfo::GetDefaultFilename();
    EXPECT_EQ("/tmp/obex_pending_files", path);
    time_t before = time(nullptr);
    int64_t first = 0;
    {
        BluetoothDownloadInfo info;
        first = info.AddPendingFile({"/mnt/ext1/a.epub", "phone"}, 1000);
        EXPECT_GT(first, 0);
    }
    struct stat file {};
    ASSERT_EQ(0, stat(path.c_str(), &file));
    EXPECT_EQ(0666u, file.st_mode & 0777u) << "writable by every process";

    // The transfer service, in another process, takes the file and reports progress.
    qvtest::ChildResult service = qvtest::RunInChild([first] {
        BluetoothDownloadInfo info;
        auto pending = info.GetPendingFiles();
        if (pending.size() != 1 || info.GetFilePath(first) != "/mnt/ext1/a.epub") return 1;
        info.SetProgress(pending[0], 2000, 512);
        info.SetFileStatus(first, static_cast<Status>(1));
        return 0;
    });
    ASSERT_TRUE(service.Succeeded()) << service.Describe();

    BluetoothDownloadInfo info(path);  // a second opening keeps the rows
    EXPECT_EQ(1, info.GetFileStatus(first));
    EXPECT_TRUE(info.GetPendingFiles().empty());
    auto files = info.GetFiles();
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(2000, files[0].size);
    EXPECT_EQ(512, files[0].uploaded);
    EXPECT_GE(files[0].timestamp, before);
    EXPECT_LE(files[0].timestamp, time(nullptr));
}

TEST(BluetoothDownloadInfo, PairsAreNotUniqueAndUnknownIdsHaveDefaults) {
    BluetoothDownloadInfo info;
    FileToSend book{"/mnt/ext1/b.fb2", "laptop"};
    int64_t one = info.AddPendingFile(book, 10);
    int64_t two = info.AddPendingFile(book, 20);
    EXPECT_NE(one, two);
    int64_t other = info.AddPendingFile({"/mnt/ext1/c.pdf", "laptop"}, 30);
    ASSERT_EQ(3u, info.GetPendingFiles().size());
    EXPECT_EQ(0, info.GetFiles()[0].uploaded) << "NULL until the first progress";

    // The pair names both of its rows.
    info.ChangeFileStatus(book, static_cast<Status>(2));
    EXPECT_EQ(2, info.GetFileStatus(one));
    EXPECT_EQ(2, info.GetFileStatus(two));
    auto pending = info.GetPendingFiles();
    ASSERT_EQ(1u, pending.size());
    EXPECT_TRUE(Same(FileToSend{"/mnt/ext1/c.pdf", "laptop"}, pending[0]));

    // Names not in the list change nothing; ids not in the list answer the defaults.
    info.ChangeFileStatus({"/mnt/ext1/none", "laptop"}, static_cast<Status>(3));
    info.SetProgress({"/mnt/ext1/c.pdf", "elsewhere"}, 1, 1);
    info.SetFileStatus(999, static_cast<Status>(3));
    EXPECT_EQ(3u, info.GetFiles().size());
    EXPECT_EQ(0, info.GetFileStatus(other));
    EXPECT_EQ(BluetoothDownloadInfo::kUnknown, info.GetFileStatus(999));
    EXPECT_EQ("", info.GetFilePath(999));

    // Names with quotes are data, not SQL.
    int64_t quoted = info.AddPendingFile({"/mnt/ext1/it's \"x\".txt", "o'clock"}, 1);
    EXPECT_EQ("/mnt/ext1/it's \"x\".txt", info.GetFilePath(quoted));
}

TEST(BluetoothDownloadInfo, OpeningFailuresThrow) {
    EXPECT_THROW(BluetoothDownloadInfo("/nonexistent/dir/list"), std::runtime_error);
    // A file that is not a database can be opened but gets no table.
    FILE* junk = fopen("/tmp/junk.db", "w");
    fputs("this is not a database, just some text long enough to fill a header.....", junk);
    fclose(junk);
    try {
        BluetoothDownloadInfo info("/tmp/junk.db");
        FAIL() << "a table was made in a file that isn't a database";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Failed to create table", e.what());
    }
}

}  // namespace
