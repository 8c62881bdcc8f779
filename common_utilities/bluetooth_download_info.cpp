// BluetoothDownloadInfo: the statements below are the ones the transfer service shares with
// applications, kept to the letter (trailing blanks included).

#include "common_utilities/bluetooth_download_info.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <ctime>
#include <stdexcept>

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY AUTOINCREMENT, filename TEXT, "
    "destination TEXT, status INTEGER,  size INTEGER, uploaded INTEGER, timestamp INTEGER)";

std::string Text(const Statement& statement, int column) {
    const char* text = statement.column_text(column);
    return text ? text : "";
}

}  // namespace

BluetoothDownloadInfo::BluetoothDownloadInfo(const std::string& path) {
    if (db_.open(path) != SQLITE_OK) {
        db_.close();
        throw std::runtime_error("Failed to open db");
    }
    ::chmod(path.c_str(), 0666);
    if (db_.exec(kCreateTable) != SQLITE_DONE) {
        db_.close();
        throw std::runtime_error("Failed to create table");
    }
}

BluetoothDownloadInfo::~BluetoothDownloadInfo() {
    db_.close();
}

std::string BluetoothDownloadInfo::GetDefaultFilename() {
    return "/tmp/obex_pending_files";
}

std::vector<FileToSend> BluetoothDownloadInfo::GetPendingFiles() {
    auto statement = db_.prepare_v2("SELECT filename, destination FROM files WHERE status = 0");
    std::vector<FileToSend> files;
    while (statement->step() == SQLITE_ROW) files.push_back({Text(*statement, 0), Text(*statement, 1)});
    return files;
}

std::vector<BluetoothDownloadInfo::File> BluetoothDownloadInfo::GetFiles() {
    auto statement = db_.prepare_v2(
        "SELECT filename, destination, status, size, uploaded, timestamp FROM files ");
    std::vector<File> files;
    while (statement->step() == SQLITE_ROW) {
        File file;
        file.filename = Text(*statement, 0);
        file.destination = Text(*statement, 1);
        file.status = static_cast<Status>(statement->column_int(2));
        file.size = statement->column_int64(3);
        file.uploaded = statement->column_int64(4);
        file.timestamp = statement->column_int64(5);
        files.push_back(std::move(file));
    }
    return files;
}

int64_t BluetoothDownloadInfo::AddPendingFile(const FileToSend& file, int64_t size) {
    db_.prepare_v2(
           "INSERT OR IGNORE INTO files (filename, destination, status, size,timestamp) values "
           "(?,?,0,?,?)")
        ->bind_all(file.filename, file.destination, static_cast<long long>(size),
                   static_cast<long long>(std::time(nullptr)))
        .run();
    return db_.LastInsertedRow();
}

void BluetoothDownloadInfo::ChangeFileStatus(const FileToSend& file, Status status) {
    db_.prepare_v2("UPDATE files SET status = ? WHERE filename = ? AND destination = ?")
        ->bind_all(status, file.filename, file.destination)
        .run();
}

void BluetoothDownloadInfo::SetProgress(const FileToSend& file, int64_t size, int64_t uploaded) {
    db_.prepare_v2("UPDATE files SET size = ?, uploaded = ? WHERE filename = ? AND destination = ?")
        ->bind_all(static_cast<long long>(size), static_cast<long long>(uploaded), file.filename,
                   file.destination)
        .run();
}

BluetoothDownloadInfo::Status BluetoothDownloadInfo::GetFileStatus(int64_t id) {
    auto statement = db_.prepare_v2("SELECT status FROM files WHERE id = ?");
    statement->bind_all(static_cast<long long>(id));
    if (statement->step() != SQLITE_ROW) return kUnknown;
    return static_cast<Status>(statement->column_int(0));
}

void BluetoothDownloadInfo::SetFileStatus(int64_t id, Status status) {
    db_.prepare_v2("UPDATE files SET status = ? WHERE id = ? ")
        ->bind_all(status, static_cast<long long>(id))
        .run();
}

std::string BluetoothDownloadInfo::GetFilePath(int64_t id) {
    auto statement = db_.prepare_v2("SELECT filename FROM files WHERE id = ?");
    statement->bind_all(static_cast<long long>(id));
    if (statement->step() != SQLITE_ROW) return "";
    return Text(*statement, 0);
}

}  // namespace utilities
}  // namespace quorvel
