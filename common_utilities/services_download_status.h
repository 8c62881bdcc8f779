// What the background services of the device are downloading, published through one shared file.
//
// Each service keeps one `DownloadStatus` and changes it through its setters; every change is
// written through at once. `ServicesDownloadStatus` owns the file "/tmp/services_download_status":
// under an exclusive `flock` it loads every service's record, puts in the one published, saves
// them all and shows the combined state on the shell's status indicator. A record stays in the
// file after its service has ended; it counts only while the process it names lives.
//
// The file is the records one after the other, sorted by service name, each in the stream form
// of SerializationUtils (strings end in a zero byte, integers are big-endian): name, pid, status,
// error, error message, the four totals, the current file, the count of files, the files, the
// custom message. A file is its id and two texts, then four integers.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class ServicesDownloadStatus;

class QV_EXPORT DownloadStatus {
public:
    // Any value other than kStopped counts as downloading; services may use their own.
    enum Status : int32_t { kStopped = 0, kDownloading = 1 };
    // The indicator shows kErrorNeedsUser apart from every other error.
    enum Error : int32_t { kNoError = 0, kErrorNeedsUser = 5 };

    // One item of a service's work; the library only carries the texts and numbers.
    struct QV_EXPORT File {
        std::string id;
        std::string text_a;
        std::string text_b;
        int32_t value_a = 0;
        int32_t value_b = 0;
        int32_t value_c = 0;
        int32_t value_d = 0;

        int WriteToStream(std::ostream& stream) const;
        int ReadFromStream(std::istream& stream);
        bool operator==(const File& other) const;
    };

    // Names the record and publishes it. QV_WRONG_STATE once named, QV_INVAL for an empty name.
    int Init(const std::string& service_name, int pid);

    // Each of these changes the record and publishes it; before Init they give QV_WRONG_STATE.
    int StartDownload();
    int StopDownload();
    int SetProgressStatus(Status status);
    int SetTotalProgressStatus(int a, int b, int c, int d);
    // Copies `file` over the entry of the list with the same id and makes it the current one;
    // with no such entry nothing changes (the record is published all the same).
    int SetCurrentProgressStatus(const File& file);
    int SetErrorStatus(Error error, const std::string& message);

    // These publish without a check: before Init the record has an empty name.
    int SetCustomMessage(std::string message);
    int SetFileList(const std::vector<File>& files);
    // Totals, current file, error and file list cleared; the status stays.
    int ResetProgress();

    std::vector<File> GetFileList() const { return files_; }

    // The record's stream form; the code of the first field that fails. ReadFromStream gives
    // QV_TIMEOUT (-8) at the end of the data, before reading anything.
    int WriteToStream(std::ostream& stream) const;
    int ReadFromStream(std::istream& stream);

    const std::string& service_name() const { return service_name_; }
    int32_t pid() const { return pid_; }
    int32_t status() const { return status_; }
    int32_t error() const { return error_; }
    const std::string& error_message() const { return error_message_; }
    const File& current_file() const { return current_file_; }
    const std::string& custom_message() const { return custom_message_; }

    int32_t total_a = 0;
    int32_t total_b = 0;
    int32_t total_c = 0;
    int32_t total_d = 0;

private:
    friend class ServicesDownloadStatus;

    int Publish();

    std::string service_name_;
    int32_t pid_ = -1;
    int32_t status_ = kStopped;
    int32_t error_ = kNoError;
    std::string error_message_;
    File current_file_;
    std::vector<File> files_;
    std::string custom_message_;
};

class QV_EXPORT ServicesDownloadStatus {
public:
    // What the shell's indicator is given (mg_set_tarvey_status).
    enum Indicator : int { kIdle = 0, kDownloading = 2, kNeedsUser = 3, kError = 5 };

    // Names under which the device's services publish.
    static const std::string dropbox_name;
    static const std::string sync_name;
    static const std::string send_to_qv_name;
    static const std::string cloud_sync_name;
    static const std::string legimi_sync_name;

    static constexpr const char* kFilePath = "/tmp/services_download_status";

    // The process's one owner of the file, made at first use and destroyed at exit.
    static ServicesDownloadStatus& GetInstance();
    ~ServicesDownloadStatus();
    ServicesDownloadStatus(const ServicesDownloadStatus&) = delete;
    ServicesDownloadStatus& operator=(const ServicesDownloadStatus&) = delete;

    // Lock, load, replace this service's record, save, update the indicator, unlock.
    int UpdateStatus(const DownloadStatus& status);
    // Every record in the file, those of ended processes included; empty when the file can't be
    // locked.
    std::vector<DownloadStatus> GetStatuses();
    // Whether a living service is downloading now; false when the file can't be read.
    bool IsDownloading();

    // The steps of the operations above. Those after LockFile expect the lock held, and one
    // thread of the process at a time.
    int LockFile();
    int UnlockFile();
    int LoadFromFile();
    int SaveToFile();
    // The error of the first living service (by name) that has one, else 0.
    int IsErrorInt();
    bool IsDownloadingInt();

private:
    ServicesDownloadStatus() = default;

    static bool IsAlive(const DownloadStatus& status);
    // What the indicator shows for the loaded records.
    int CombinedIndicator() const;
    // Reads the records of `data`; a damaged one makes the file be saved anew.
    void ParseRecords(const std::string& data);

    int fd_ = -1;
    std::map<std::string, DownloadStatus> statuses_;
    // The public operations of one process run one at a time: the steps share the descriptor
    // and the loaded records.
    std::mutex mutex_;
};

}  // namespace utilities
}  // namespace quorvel
