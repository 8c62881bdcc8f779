// qvtool bt: the list of files waiting for a Bluetooth transfer.

#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/bluetooth_download_info.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::BluetoothDownloadInfo;
using quorvel::utilities::FileToSend;
using quorvel::utilities::Sqlite;
using quorvel::utilities::SqliteError;

std::string DbPath(Args& args) {
    return args.Option("--db").value_or(BluetoothDownloadInfo::GetDefaultFilename());
}

// The list's file, opened as the applications open it.
BluetoothDownloadInfo Open(const std::string& path) {
    try {
        return BluetoothDownloadInfo(path);
    } catch (const std::runtime_error& e) {
        throw Failure(kFailed, path + ": " + e.what());
    }
}

std::string StatusText(int status) {
    return status == BluetoothDownloadInfo::kPending ? "0 pending" : std::to_string(status);
}

std::string Time(int64_t seconds) {
    time_t value = static_cast<time_t>(seconds);
    char text[32];
    tm local{};
    localtime_r(&value, &local);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

// Rows carry no id in the class's list; the ids come in the same order from the same table.
std::vector<long long> Ids(const std::string& path) {
    Sqlite db;
    std::vector<long long> ids;
    if (db.open(path) != 0) return ids;
    {
        auto statement = db.prepare_v2("SELECT id FROM files ");
        while (statement->step() == 100 /* SQLITE_ROW */) ids.push_back(statement->column_int64(0));
    }  // a connection closes only once its statements are gone
    db.close();
    return ids;
}

int RunList(Args& args) {
    std::string path = DbPath(args);
    bool pending = args.Flag("--pending");
    args.Done();
    BluetoothDownloadInfo info = Open(path);
    if (pending) {
        Table table({"FILE", "DESTINATION"});
        for (const FileToSend& file : info.GetPendingFiles()) table.AddRow({file.filename, file.destination});
        table.Print(std::cout);
        return kOk;
    }
    std::vector<BluetoothDownloadInfo::File> files = info.GetFiles();
    std::vector<long long> ids = Ids(path);
    Table table({"ID", "FILE", "DESTINATION", "STATUS", "SIZE", "SENT", "ADDED"});
    for (size_t i = 0; i < files.size(); ++i) {
        const auto& f = files[i];
        table.AddRow({i < ids.size() ? std::to_string(ids[i]) : "?", f.filename, f.destination,
                      StatusText(f.status), std::to_string(f.size), std::to_string(f.uploaded),
                      Time(f.timestamp)});
    }
    table.Print(std::cout);
    return kOk;
}

int RunAdd(Args& args) {
    std::string path = DbPath(args);
    long long size = ParseInteger(args.Option("--size").value_or("0"), "--size");
    FileToSend file;
    file.filename = args.Next("FILE");
    file.destination = args.Next("DESTINATION");
    args.Done();
    if (size < 0) throw Failure(kUsage, "--size must not be negative");
    BluetoothDownloadInfo info = Open(path);
    std::cout << info.AddPendingFile(file, size) << '\n';
    return kOk;
}

long long ExistingId(BluetoothDownloadInfo& info, const std::string& text) {
    long long id = ParseInteger(text, "ID");
    if (info.GetFilePath(id).empty() && info.GetFileStatus(id) == BluetoothDownloadInfo::kUnknown)
        throw Failure(kNotFound, "no transfer " + text);
    return id;
}

int RunStatus(Args& args) {
    std::string path = DbPath(args);
    std::string id_text = args.Next("ID");
    auto value = args.NextOptional();
    args.Done();
    BluetoothDownloadInfo info = Open(path);
    long long id = ExistingId(info, id_text);
    if (value) {
        info.SetFileStatus(id, static_cast<BluetoothDownloadInfo::Status>(ParseInteger(*value, "STATUS")));
    }
    std::cout << StatusText(info.GetFileStatus(id)) << '\n';
    return kOk;
}

int RunProgress(Args& args) {
    std::string path = DbPath(args);
    FileToSend file;
    file.filename = args.Next("FILE");
    file.destination = args.Next("DESTINATION");
    long long size = ParseInteger(args.Next("SIZE"), "SIZE");
    long long sent = ParseInteger(args.Next("SENT"), "SENT");
    args.Done();
    BluetoothDownloadInfo info = Open(path);
    info.SetProgress(file, size, sent);
    return kOk;
}

// The class keeps every row; taking one out is the tool's own housekeeping.
int RunRemove(Args& args) {
    std::string path = DbPath(args);
    std::string id_text = args.Next("ID");
    args.Done();
    BluetoothDownloadInfo info = Open(path);
    long long id = ExistingId(info, id_text);
    Sqlite db;
    if (db.open(path) != 0) throw Failure(kFailed, path + ": can't be opened");
    db.prepare_v2("DELETE FROM files WHERE id = ?")->bind_all(id).run();
    db.close();
    return kOk;
}

int Guarded(int (*run)(Args&), Args& args) {
    try {
        return run(args);
    } catch (const SqliteError& e) {
        throw Failure(kFailed, e.message());
    }
}

const char* const kDbOption = "  --db PATH   another list file (default /tmp/obex_pending_files)\n";

const bool registered =
    Register({"bt list", "files waiting for, or in, a Bluetooth transfer",
              std::string("usage: qvtool bt list [--pending] [--db PATH]\n"
                          "Every row with its id, status (0 pending), size, bytes sent and the time it\n"
                          "was added; --pending only the files still waiting.\n") + kDbOption,
              [](Args& a) { return Guarded(RunList, a); }}) &&
    Register({"bt add", "add a file to the Bluetooth transfer list",
              std::string("usage: qvtool bt add FILE DESTINATION [--size BYTES] [--db PATH]\n"
                          "Adds a pending row and prints its id. The same file and destination may be\n"
                          "added more than once.\n") + kDbOption,
              [](Args& a) { return Guarded(RunAdd, a); }}) &&
    Register({"bt status", "show or set the status of one Bluetooth transfer",
              std::string("usage: qvtool bt status ID [STATUS] [--db PATH]\n") + kDbOption,
              [](Args& a) { return Guarded(RunStatus, a); }}) &&
    Register({"bt progress", "record the progress of a Bluetooth transfer",
              std::string("usage: qvtool bt progress FILE DESTINATION SIZE SENT [--db PATH]\n"
                          "Sets size and bytes sent of every row of FILE and DESTINATION.\n") + kDbOption,
              [](Args& a) { return Guarded(RunProgress, a); }}) &&
    Register({"bt rm", "take a row out of the Bluetooth transfer list",
              std::string("usage: qvtool bt rm ID [--db PATH]\n") + kDbOption,
              [](Args& a) { return Guarded(RunRemove, a); }});

}  // namespace
}  // namespace qvtool
