// The on-disk side of a download: the data file and its progress record, the space reservation,
// the write path that keeps the record current, and the final naming or removal.
//
// The record is rewritten after every piece written, so a process killed at any moment leaves a
// record that never claims more than the data file holds. Data is synced every 20 MiB rather than
// per write: the record may then run ahead of what a power cut keeps, which a resume can't tell;
// syncing per piece would cost the transfer most of its speed on flash storage.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "common_utilities/downloader.h"
#include "common_utilities/pthread_lock.h"

namespace quorvel {
namespace utilities {
namespace {

// Space is reserved, and received data synced, in steps of this size.
constexpr off_t kSyncStep = 0x1400000;  // 20 MiB
// An error body at least this large is not handed back by getErrorBody.
constexpr off_t kErrorBodyLimit = 0x100000;  // 1 MiB
constexpr const char* kFb2Zip = ".fb2.zip";

// Bytes written by every downloader of the process since the last sync. One counter for all of
// them: a sync flushes the device's write queue, whichever file filled it.
std::atomic<size_t> g_unsynced_bytes{0};

bool Exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

// Writes all of `count` bytes, riding over short writes and interruptions. The bytes written, and
// in `*last` the result of the last write.
size_t WriteAll(int fd, const char* data, size_t count, ssize_t* last) {
    size_t written = 0;
    while (written < count) {
        ssize_t err = ::write(fd, data + written, count - written);
        *last = err;
        if (err < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (err <= 0) break;
        written += static_cast<size_t>(err);
    }
    return written;
}

}  // namespace

// ---- ProgressFile ----------------------------------------------------------------------------

ProgressFile::~ProgressFile() {
    Close();
}

void ProgressFile::Close() {
    if (file_ != WRONG_FILE_DESCRIPTOR) ::close(file_);
    file_ = WRONG_FILE_DESCRIPTOR;
}

int ProgressFile::Init(const std::string& data_path) {
    Close();
    path_ = data_path + ".progress";
    data_.offset = 0;
    file_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    if (QV_CLEANUP_UNLESS(file_ != WRONG_FILE_DESCRIPTOR, "Open filed with [%d]", errno)) {
        return QV_FAILED;
    }
    struct stat st {};
    int err = ::fstat(file_, &st);
    if (QV_CLEANUP_UNLESS(0 == err, "fstat filed with [%d]", errno)) return QV_FAILED;
    if (st.st_size > 7 && Read() == 0) return QV_OK;
    // Too short to hold a record (a write cut short by a crash): start over.
    data_.offset = 0;
    data_.total = 0;
    int rc = Write();
    if (rc != 0) {
        QV_LOG_FAILED(rc, "");
        return rc;
    }
    return QV_OK;
}

int ProgressFile::Read() {
    off_t offset = ::lseek(file_, 0, SEEK_SET);
    QV_RETURN_UNLESS(offset != (off_t)-1, QV_FAILED, "lseek failed with [%d]", errno);
    int err = static_cast<int>(::read(file_, &data_, sizeof(data_)));
    QV_RETURN_UNLESS((int)sizeof(data_) == err, QV_FAILED, "read failed with [%d]", errno);
    return QV_OK;
}

int ProgressFile::Write() {
    off_t offset = ::lseek(file_, 0, SEEK_SET);
    QV_RETURN_UNLESS(offset != (off_t)-1, QV_FAILED, "lseek failed with [%d]", errno);
    int err = static_cast<int>(::write(file_, &data_, sizeof(data_)));
    // The read wording in the write path is what log searches on devices look for.
    QV_RETURN_UNLESS((int)sizeof(data_) == err, QV_FAILED, "read failed with [%d]", errno);
    return QV_OK;
}

void ProgressFile::Cleanup(const std::string& data_path) {
    std::string path = data_path + ".progress";
    int err = ::unlink(path.c_str());
    if (err != 0) QV_LOG_ERROR("err:[%d] Failed to cleanup file with errno = [%d]", err, errno);
}

DownloadContext::~DownloadContext() {
    if (file_ != -1) ::close(file_);
    progress.Close();
}

// ---- Preparing a transfer --------------------------------------------------------------------

int reserveFileSpace(int fd, off_t file_size) {
    off_t current = ::lseek(fd, 0, SEEK_END);
    QV_RETURN_UNLESS(current != (off_t)-1, QV_FAILED, "lseek failed with [%d]", errno);
    struct statvfs fs {};
    int err = ::fstatvfs(fd, &fs);
    QV_RETURN_UNLESS(0 == err, QV_FAILED, "fstatvfs failed with [%d]", errno);

    // The whole size against the free space, however much of the file exists: a resumed download
    // near the limit is refused too, and a file system that reports no blocks at all (some
    // virtual ones) is taken at its word that it has room.
    unsigned long long free_bytes =
        static_cast<unsigned long long>(fs.f_bsize) * static_cast<unsigned long long>(fs.f_bavail);
    if (static_cast<unsigned long long>(file_size) >= free_bytes && fs.f_blocks != 0) {
        QV_LOG_ERROR(
            "fstatvfs tell than not anough memory.f_bsize = [%d], f_bavail = [%d], file_size "
            "=[%d]",
            static_cast<int>(fs.f_bsize), static_cast<int>(fs.f_bavail),
            static_cast<int>(file_size));
        return kNotEnoughSpace;
    }

    // Step by step with a sync between steps: one huge allocation can hold the flash
    // controller's queue long enough for the interface to freeze.
    off_t left = file_size - current;
    while (left > 0) {
        off_t chunk = std::min(left, kSyncStep);
        off_t offset = file_size - left;
        err = ::posix_fallocate(fd, offset, chunk);
        if (err == ENOSPC) {
            QV_LOG_ERROR("posix_fallocate returns ENOSPC offset = [%d], size= [%d]",
                         static_cast<int>(offset), static_cast<int>(chunk));
            return kNotEnoughSpace;
        }
        QV_RETURN_UNLESS(0 == err, QV_FAILED, "posix_fallocate failed with [%d]", err);
        left -= chunk;
        if (left > 0) {
            err = ::fdatasync(fd);
            QV_RETURN_UNLESS(0 == err, QV_FAILED, "fdatasync failed with [%d]", errno);
        }
    }
    return QV_OK;
}

int prepareContext(const std::string& path, off_t file_size, DownloadContext& context) {
    context.file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    QV_RETURN_UNLESS(context.file_ != -1, QV_FAILED, "open failed with [%d]", errno);
    int fd = context.file_;

    off_t offset = ::lseek(fd, 0, SEEK_END);
    QV_RETURN_UNLESS(offset != (off_t)-1, QV_FAILED, "lseek failed with [%d]", errno);

    int rc = reserveFileSpace(fd, file_size);
    if (rc == kNotEnoughSpace) {
        // No half-reserved file stays behind; the progress record isn't open yet.
        QV_LOG_ERROR("Not enough space for [%s]", path.c_str());
        ::close(fd);
        context.file_ = -1;
        ::unlink(path.c_str());
        return kNotEnoughSpace;
    }
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }

    // A network that doesn't come up shows as a failed transfer, with libcurl's reason.
    if (GetNetState() != NET_STATE_CONNECTED) NetConnect2(NULL, 0);

    rc = context.progress.Init(path);
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }

    // A record that claims more than the data file holds, or more than the whole size, belongs
    // to another file of the same name: start over. So does a negative one, which only damage
    // makes: the seek to it would fail at every attempt, and the download could never go on.
    ProgressFile::Data& record = context.progress.data();
    off_t limit = record.total != 0 ? record.total : file_size;
    if (record.offset < 0 || record.offset > offset || record.offset > limit) {
        record.offset = 0;
        context.progress.Write();
    }

    off_t position = ::lseek(fd, record.offset, SEEK_SET);
    QV_RETURN_UNLESS(position != (off_t)-1, QV_FAILED, "lseek failed with [%d]", errno);
    return QV_OK;
}

// ---- Writing ---------------------------------------------------------------------------------

size_t Downloader::WriteFunction(char* data, size_t size, size_t nmemb, void* context_ptr) {
    auto* context = static_cast<DownloadContext*>(context_ptr);
    ProgressFile::Data& record = context->progress.data();
    size_t count = size * nmemb;
    // The record holds 32-bit offsets: a file that would pass 2 GiB ends here, as a failed write.
    if (count > static_cast<size_t>(INT32_MAX - record.offset)) {
        QV_LOG_ERROR("File is larger than the 2 GiB a download can hold, stopped at [%d]",
                     record.offset);
        return 0;
    }

    ssize_t last = 0;
    size_t written = WriteAll(context->file_, data, count, &last);
    if (written != count) {
        // The result of the failed write, in the type the count has (-1 stays -1 in the log).
        size_t err = static_cast<size_t>(last);
        // clang-format off
        QV_CLEANUP_UNLESS(err == (int)size*nmemb, "err = [%d], errno = [%d]", static_cast<int>(err), errno);
        // clang-format on
        return written;
    }

    record.offset += static_cast<int32_t>(count);
    context->progress.Write();
    if (g_unsynced_bytes.fetch_add(count) + count > static_cast<size_t>(kSyncStep)) {
        ::fdatasync(context->file_);
        g_unsynced_bytes.store(0);
    }

    Downloader* self = context->downloader;
    PthreadLock lock(self->mutex_);
    self->current_ = record.offset;
    return count;
}

// ---- Naming and clean-up ---------------------------------------------------------------------

std::string get_final_name(const std::string& whole_path) {
    // The file system sees a name up to its first zero byte. Every candidate of a name with one
    // inside would be the same file, and the search for a free one would never end.
    const std::string path = whole_path.c_str();
    std::string stem = path;
    std::string extension;
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        // no extension
    } else if (path.find('/', dot) != std::string::npos) {
        // the dot belongs to a directory
    } else if (path.rfind(kFb2Zip) == path.size() - std::char_traits<char>::length(kFb2Zip)) {
        // The double extension stays whole. The test is an unsigned comparison: a path of seven
        // bytes makes both sides "not found", and gets ".fb2.zip" behind the whole path. Names
        // that devices already hold depend on it.
        size_t at = path.rfind(kFb2Zip);
        stem = path.substr(0, at);
        extension = kFb2Zip;
    } else {
        stem = path.substr(0, dot);
        extension = path.substr(dot);
    }
    for (int i = 0;; ++i) {
        std::string candidate =
            i == 0 ? stem + extension : stem + "_" + std::to_string(i) + extension;
        if (!Exists(candidate)) return candidate;
    }
}

void Downloader::Cleanup(const FileToSync& book) {
    std::string folder;
    bool overwrite = false;
    {
        PthreadLock lock(mutex_);
        folder = folder_;
        overwrite = overwrite_;
        final_path_.clear();
    }

    std::string path = folder + "/" + book.name;
    std::string temp = path + ".downloading";
    std::string target = overwrite ? path : get_final_name(path);
    int err = ::rename(temp.c_str(), target.c_str());
    QV_RETURN_VOID_UNLESS(0 == err);

    {
        PthreadLock lock(mutex_);
        final_path_ = target;
    }
    ProgressFile::Cleanup(temp);
}

void Downloader::CleanupOnErr(const FileToSync& book) {
    std::string temp = TempPath(book);
    ::unlink(temp.c_str());
    ProgressFile::Cleanup(temp);
}

std::vector<char> Downloader::getErrorBody(const FileToSync& book) {
    std::vector<char> body;
    std::string temp = TempPath(book);
    int fd = ::open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return body;
    off_t size = ::lseek(fd, 0, SEEK_END);
    if (size > 0 && size < kErrorBodyLimit) {
        body.resize(static_cast<size_t>(size));
        size_t done = 0;
        while (done < body.size()) {
            ssize_t n = ::pread(fd, body.data() + done, body.size() - done, done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        body.resize(done);
    }
    ::close(fd);
    return body;
}

std::string Downloader::TempPath(const FileToSync& book) {
    PthreadLock lock(mutex_);
    return folder_ + "/" + book.name + ".downloading";
}

}  // namespace utilities
}  // namespace quorvel
