// Resumable downloads: one file at a time over HTTP(S) into a folder, on a worker thread.
//
// The transfer goes to "<folder>/<name>.downloading"; beside it "<name>.downloading.progress"
// records, after every piece written, how many bytes of the data file are good and the whole
// size when known (8 bytes: two little-endian int32). That record is all the state a resume
// needs, so a download survives the process being killed and the device restarting: the next
// Start of the same name continues from the recorded offset with a range request.
//
// Space is reserved ahead of the transfer (in 20 MiB steps with a sync between them), so a full
// disk shows before any byte is fetched; received data is synced every 20 MiB.
//
// The owner drives a Downloader with commands (Start, Retry, Abort, Pause, Resume). Commands only
// set a field and wake the worker; a running transfer sees them at its next progress tick. Every
// change of state is reported through IDownloaderCallback on the worker with no lock held, so the
// owner may call GetStatus, Cleanup or Start from inside a notification. After DS_Finished the
// owner moves the file into place with Cleanup; after DS_Error it removes the leftovers with
// CleanupOnErr, or keeps them for a later Start to resume from.
//
// Pausing is one-way: a pause stays pending while the transfer is held, is repeated at every
// progress tick (with a notification carrying a null context each time), and Resume answers
// QV_BUSY for as long as it stands. Abort is the way out of a pause. Applications have always
// seen a pause this way; code built on it relies on the repeated notifications.
//
// A resume needs the whole size: given with the item, or learned from the server by an earlier
// attempt that got to its end. With neither, the record can't be checked against anything and an
// interrupted download starts over.
//
// Files are limited to 2 GiB - 1 bytes: the progress record holds 32-bit offsets, and a transfer
// that would go past that fails instead of wrapping.
//
// The worker lives until Stop, which the destructor calls: an owner that is itself a callback
// calls Stop first in its own destructor, so that no notification reaches it half destroyed.
// Stop interrupts a running transfer like a killed process would, keeping its files, and
// notifies nothing more; nothing else sends the worker away.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

typedef void CURL;
struct curl_slist;

namespace quorvel {
namespace utilities {

// One unit of download work.
struct QV_EXPORT FileToSync {
    std::string url;
    std::string name;  // file name inside the target folder, without a directory part
    int32_t size = 0;  // expected size in bytes; 0 when not known
};

class QV_EXPORT IDownloaderCallback {
public:
    // Runs on the Downloader's worker with no lock held. `context` is the pointer given with the
    // command whose effect is being reported, or null for changes no command asked for.
    virtual void NotifyDownloaderStatus(void* context) = 0;
    virtual ~IDownloaderCallback() {}
};

// The sidecar record of a data file: good bytes and whole size.
class QV_EXPORT ProgressFile {
public:
    enum { WRONG_FILE_DESCRIPTOR = -1 };

    struct Data {
        int32_t offset;  // bytes of the data file that are good: the resume point
        int32_t total;   // whole size of the file when known, else 0
    };

    ProgressFile() = default;
    ~ProgressFile();
    ProgressFile(const ProgressFile&) = delete;
    ProgressFile& operator=(const ProgressFile&) = delete;

    // Opens or creates "<data_path>.progress" and loads it; a file shorter than 8 bytes counts as
    // absent and is rewritten as zeros. 0 or -1.
    int Init(const std::string& data_path);
    // The 8 bytes at offset 0, read or rewritten in place. 0 or -1.
    int Read();
    int Write();
    void Close();

    // Removes the progress file of a data path; a failure is only logged.
    static void Cleanup(const std::string& data_path);

    const std::string& path() const { return path_; }
    int fd() const { return file_; }
    Data& data() { return data_; }

private:
    std::string path_;
    int file_ = WRONG_FILE_DESCRIPTOR;
    Data data_{0, 0};
};

// The record on disk is 8 bytes whatever the architecture, so that a resume reads what an
// earlier process (or build) wrote.
static_assert(sizeof(ProgressFile::Data) == 8 && offsetof(ProgressFile::Data, total) == 4,
              "progress record: offset and total, two int32");

class Downloader;
class PthreadLock;

// The state of one transfer, on the worker's stack: the data file, its progress record, the
// owner and the transfer handle. Both descriptors are closed by the destructor.
struct QV_EXPORT DownloadContext {
    DownloadContext() = default;
    ~DownloadContext();
    DownloadContext(const DownloadContext&) = delete;
    DownloadContext& operator=(const DownloadContext&) = delete;

    int file_ = -1;
    ProgressFile progress;
    Downloader* downloader = nullptr;
    CURL* curl = nullptr;
};

// The value prepareContext and reserveFileSpace return when the disk can't hold the file.
constexpr int kNotEnoughSpace = -6;

// Opens (or creates) the data file at `path` and its progress record, reserves space for
// `file_size` bytes, asks the platform for a network when there is none, and puts the file
// position at the resume point. 0, -1, or kNotEnoughSpace, in which case the data file is gone.
QV_EXPORT int prepareContext(const std::string& path, off_t file_size, DownloadContext& context);

// Grows `fd` to `file_size` bytes of allocated space, 20 MiB at a time with a data sync between
// steps. Refuses (kNotEnoughSpace) when the file system's free space is not above `file_size`,
// whatever part of the file exists already. 0, -1 or kNotEnoughSpace.
QV_EXPORT int reserveFileSpace(int fd, off_t file_size);

// `path` itself when nothing is there, else the first of "<stem>_1<ext>", "<stem>_2<ext>", ...
// that is free. The extension is the text from the last dot of the file name, or ".fb2.zip"
// whole; a dot in a directory name, or a leading dot, gives no extension.
QV_EXPORT std::string get_final_name(const std::string& path);

class QV_EXPORT Downloader {
public:
    enum Status {
        DS_Idle = 0,         // nothing going on
        DS_Downloading = 1,  // a transfer is under way
        DS_Finished = 2,     // the temporary file is complete
        DS_Error = 3,        // the last transfer failed; see the error kind
        DS_Paused = 4,       // the transfer is paused
        DS_Aborted = 5,      // the transfer was abandoned, its files are gone
    };

    enum Command {
        DC_None = 0,
        DC_Start = 1,   // Start, Retry
        DC_Abort = 2,   // Abort
        DC_Pause = 3,   // Pause
        DC_Resume = 4,  // Resume
        DC_Exit = 5,    // Stop: the worker ends, a running transfer is interrupted
    };

    // Error kinds, meaningful in DS_Error.
    enum Error {
        kErrorNone = 0,
        kErrorTransfer = 1,  // transfer or set-up failure
        kErrorHttp = 2,      // an HTTP status other than 200 and 206
        kErrorSpace = 3,     // not enough space
    };

    struct StatusInfo {
        Status status = DS_Idle;
        int error = 0;  // 0 unless status is DS_Error
        int current = 0;
        int http_code = 0;
        int total = 0;
        std::string filename;  // from a content-disposition header; quoted names only
        std::string content_type;
        std::string effective_url;
    };

    Downloader();
    // Stops the worker first (see Stop).
    ~Downloader();
    Downloader(const Downloader&) = delete;
    Downloader& operator=(const Downloader&) = delete;

    // Starts the worker. `cb` is not owned and must outlive the worker. QV_OK, QV_WRONG_STATE
    // (null `cb`, or a second Init), QV_FAILED.
    int Init(IDownloaderCallback* cb);

    // Downloads `book` into `folder` (made when missing, one level only), resuming from what an
    // earlier attempt of the same name left there. QV_OK, QV_NOT_INITIALIZED, QV_BUSY while a
    // command is pending, QV_WRONG_STATE while a transfer runs or is paused, QV_INVAL for an empty
    // name.
    int Start(const FileToSync& book, const std::string& folder, void* context);
    // Repeats the last Start; allowed in DS_Idle, DS_Finished and DS_Aborted. After an error a new
    // Start is needed.
    int Retry(void* context);
    // Abandons the transfer and removes its files; overrides any pending command. With no
    // transfer running it only brings the status back to DS_Idle.
    int Abort(void* context);
    int Pause(void* context);
    int Resume(void* context);

    // Ends the worker: a running transfer is interrupted with its files kept for a later resume,
    // and nothing more is notified. Waits for the worker. Needed only before the owner goes away
    // (the destructor does it); the Downloader accepts no command afterwards. QV_OK, or
    // QV_WRONG_STATE when called on the worker itself (from a notification).
    int Stop();

    StatusInfo GetStatus();
    FileToSync GetBook();
    // Where the last successful Cleanup put the file; empty after a Cleanup that failed.
    std::string GetFinalPath();
    // Whether the caller runs on this Downloader's worker (inside a notification).
    bool IsWorkerThread();

    // Back to DS_Idle with no error, no URL and no counts.
    int ClearStatus();

    // Sent with every transfer from the next on: a cookie "name=value" (one; the last set wins),
    // and request headers "Name: value".
    void SetCookie(const std::string& name, const std::string& value);
    void AddHeader(const std::string& name, const std::string& value);
    void ClearHeaders();
    // Whether Cleanup replaces a file of the final name instead of choosing a free one.
    void SetOverwrite(bool overwrite);

    // After DS_Finished: moves the data file to its final name in the folder (the item's own
    // name, or the first free "_N" variant unless overwriting) and removes the progress file.
    // The name comes from the item alone, never from the server's headers.
    void Cleanup(const FileToSync& book);
    // After DS_Error: removes the data file and the progress file.
    void CleanupOnErr(const FileToSync& book);
    // After an HTTP error: the body the server sent with it (the data file, which holds it), or
    // nothing when that file is missing or 1 MiB or larger.
    std::vector<char> getErrorBody(const FileToSync& book);

    // libcurl's callbacks.
    static size_t WriteFunction(char* data, size_t size, size_t nmemb, void* context);
    static size_t WriteHeader(void* data, size_t size, size_t nmemb, void* downloader);
    static int ProgressFunctionCaller(void* context, double, double, double, double);
    int ProgressFunction(void* context, double, double, double, double);
    // The file name of a content-disposition line, quoted names only; empty when there is none.
    static std::string FindFilename(const char* header);

private:
    static void* DownloadThread(void* self);
    int StartProcess();
    int StartDownload();

    // The parts of StartDownload. Transfer runs from the files on disk to the end of the
    // transfer (libcurl's result, or a failure of the set-up with `*transferred` false); Conclude
    // turns the result into the status, under the lock.
    int Transfer(DownloadContext& context, const std::string& temp, curl_slist** headers,
                 bool* transferred);
    int ConfigureTransfer(DownloadContext& context, curl_slist** headers);
    void SetResumePoint(CURL* curl, off_t offset);
    int PerformWithRecovery(DownloadContext& context, off_t size);
    void ApplyContentLength(DownloadContext& context, off_t size);
    int Conclude(DownloadContext& context, int transfer_result, PthreadLock& lock,
                 bool* interrupted);
    void RemoveFiles();

    // What a notification needs, taken under the lock and used after it is released.
    struct Pending {
        IDownloaderCallback* cb;
        void* context;
    };
    Pending TakePending();  // clears notify_context_
    static void Notify(const Pending& pending);
    std::string TempPath(const FileToSync& book);

    Status status_;
    int error_;
    int http_code_;
    std::string url_;
    std::string folder_;
    std::string temp_path_;
    off_t size_;
    off_t total_;
    IDownloaderCallback* cb_;
    off_t current_;
    FileToSync book_;
    void* notify_context_;
    void* displaced_context_;
    std::string header_filename_;
    std::string cookie_;
    std::string content_type_;
    std::string effective_url_;
    std::string final_path_;
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
    Command command_;
    pthread_t thread_;
    off_t resume_from_;
    bool overwrite_;
    std::vector<std::string> headers_;
    // The mutex and the condition are made by the constructor, so that every operation may lock
    // them before Init; Init reports a failure to make them.
    int sync_error_;
    // Between a successful Init and Stop.
    bool thread_running_;
};

}  // namespace utilities
}  // namespace quorvel
