// The list of files waiting for, or in, a transfer over Bluetooth OBEX: a small SQLite file that
// the application and the transfer service share. The class records and reports; it moves no
// data.
//
// Rows are never deleted here, and nothing makes a file and destination pair unique: adding a
// pair twice gives two rows, and the operations that name a file by its pair change all of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common_utilities/qv_sqlite.h"

namespace quorvel {
namespace utilities {

struct QV_EXPORT FileToSend {
    std::string filename;
    std::string destination;
};

class QV_EXPORT BluetoothDownloadInfo {
public:
    // 0 is pending; kUnknown is the answer for an id that has no row. The other values are the
    // transfer service's.
    enum Status : int { kPending = 0, kUnknown = 5 };

    struct File {
        std::string filename;
        std::string destination;
        Status status = kPending;
        int64_t size = 0;
        int64_t uploaded = 0;
        int64_t timestamp = 0;
    };

    // Opens (or makes) the database at `path`, opens it to every process and makes the table.
    // Throws std::runtime_error when the file can't be opened or the table made.
    explicit BluetoothDownloadInfo(const std::string& path = GetDefaultFilename());
    ~BluetoothDownloadInfo();
    BluetoothDownloadInfo(const BluetoothDownloadInfo&) = delete;
    BluetoothDownloadInfo& operator=(const BluetoothDownloadInfo&) = delete;

    static std::string GetDefaultFilename();

    // The files with status 0, in the order SQLite gives them.
    std::vector<FileToSend> GetPendingFiles();
    // Every row; `uploaded` is 0 until SetProgress.
    std::vector<File> GetFiles();
    // A new pending row stamped with the time now; its id.
    int64_t AddPendingFile(const FileToSend& file, int64_t size);
    void ChangeFileStatus(const FileToSend& file, Status status);
    void SetProgress(const FileToSend& file, int64_t size, int64_t uploaded);
    // kUnknown when there is no such row.
    Status GetFileStatus(int64_t id);
    void SetFileStatus(int64_t id, Status status);
    // Empty when there is no such row.
    std::string GetFilePath(int64_t id);

private:
    Sqlite db_;
};

}  // namespace utilities
}  // namespace quorvel
