// DownloadStatus and ServicesDownloadStatus: records of the services and their shared file.

#include "common_utilities/services_download_status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "common_utilities/serialization_utils.h"

namespace quorvel {
namespace utilities {
namespace {

using SU = SerializationUtils;

// One field of a record: a failure is logged and its code returned.
#define QV_FIELD(call)                  \
    do {                                \
        int field_err = (call);         \
        if (field_err != QV_OK) {       \
            QV_LOG_FAILED(field_err, ""); \
            return field_err;           \
        }                               \
    } while (0)

constexpr size_t kReadPiece = 1023;

}  // namespace

// ---- File -------------------------------------------------------------------------------------

int DownloadStatus::File::WriteToStream(std::ostream& stream) const {
    QV_FIELD(SU::SerializeString(id, stream));
    QV_FIELD(SU::SerializeString(text_a, stream));
    QV_FIELD(SU::SerializeString(text_b, stream));
    QV_FIELD(SU::SerializeInt32(value_a, stream));
    QV_FIELD(SU::SerializeInt32(value_b, stream));
    QV_FIELD(SU::SerializeInt32(value_c, stream));
    QV_FIELD(SU::SerializeInt32(value_d, stream));
    return QV_OK;
}

int DownloadStatus::File::ReadFromStream(std::istream& stream) {
    QV_FIELD(SU::DeserializeString(stream, &id));
    QV_FIELD(SU::DeserializeString(stream, &text_a));
    QV_FIELD(SU::DeserializeString(stream, &text_b));
    QV_FIELD(SU::DeserializeInt32(stream, &value_a));
    QV_FIELD(SU::DeserializeInt32(stream, &value_b));
    QV_FIELD(SU::DeserializeInt32(stream, &value_c));
    QV_FIELD(SU::DeserializeInt32(stream, &value_d));
    return QV_OK;
}

bool DownloadStatus::File::operator==(const File& other) const {
    return id == other.id && text_a == other.text_a && text_b == other.text_b &&
           value_a == other.value_a && value_b == other.value_b && value_c == other.value_c &&
           value_d == other.value_d;
}

// ---- DownloadStatus ---------------------------------------------------------------------------

int DownloadStatus::Publish() {
    return ServicesDownloadStatus::GetInstance().UpdateStatus(*this);
}

int DownloadStatus::Init(const std::string& service_name, int pid) {
    QV_RETURN_IF(!service_name_.empty(), QV_WRONG_STATE);
    QV_RETURN_IF(service_name.empty(), QV_INVAL);
    service_name_ = service_name;
    pid_ = pid;
    return Publish();
}

int DownloadStatus::StartDownload() {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    status_ = kDownloading;
    return Publish();
}

int DownloadStatus::StopDownload() {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    status_ = kStopped;
    return Publish();
}

int DownloadStatus::SetProgressStatus(Status status) {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    status_ = status;
    return Publish();
}

int DownloadStatus::SetTotalProgressStatus(int a, int b, int c, int d) {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    total_a = a;
    total_b = b;
    total_c = c;
    total_d = d;
    return Publish();
}

int DownloadStatus::SetCurrentProgressStatus(const File& file) {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    for (File& entry : files_) {
        if (entry.id != file.id) continue;
        entry = file;
        current_file_ = file;
        break;
    }
    return Publish();
}

int DownloadStatus::SetErrorStatus(Error error, const std::string& message) {
    QV_RETURN_IF(service_name_.empty(), QV_WRONG_STATE);
    error_ = error;
    error_message_ = message;
    return Publish();
}

int DownloadStatus::SetCustomMessage(std::string message) {
    custom_message_ = std::move(message);
    return Publish();
}

int DownloadStatus::SetFileList(const std::vector<File>& files) {
    files_ = files;
    return Publish();
}

int DownloadStatus::ResetProgress() {
    total_a = total_b = total_c = total_d = 0;
    current_file_ = File();
    error_ = kNoError;
    error_message_.clear();
    files_.clear();
    return Publish();
}

int DownloadStatus::WriteToStream(std::ostream& stream) const {
    QV_FIELD(SU::SerializeString(service_name_, stream));
    QV_FIELD(SU::SerializeInt32(pid_, stream));
    QV_FIELD(SU::SerializeInt32(status_, stream));
    QV_FIELD(SU::SerializeInt32(error_, stream));
    QV_FIELD(SU::SerializeString(error_message_, stream));
    QV_FIELD(SU::SerializeInt32(total_a, stream));
    QV_FIELD(SU::SerializeInt32(total_b, stream));
    QV_FIELD(SU::SerializeInt32(total_c, stream));
    QV_FIELD(SU::SerializeInt32(total_d, stream));
    QV_FIELD(current_file_.WriteToStream(stream));
    QV_FIELD(SU::SerializeInt32(static_cast<int32_t>(files_.size()), stream));
    for (const File& file : files_) QV_FIELD(file.WriteToStream(stream));
    QV_FIELD(SU::SerializeString(custom_message_, stream));
    return QV_OK;
}

int DownloadStatus::ReadFromStream(std::istream& stream) {
    if (stream.get() == std::char_traits<char>::eof()) return QV_TIMEOUT;
    stream.unget();
    QV_FIELD(SU::DeserializeString(stream, &service_name_));
    QV_FIELD(SU::DeserializeInt32(stream, &pid_));
    QV_FIELD(SU::DeserializeInt32(stream, &status_));
    QV_FIELD(SU::DeserializeInt32(stream, &error_));
    QV_FIELD(SU::DeserializeString(stream, &error_message_));
    QV_FIELD(SU::DeserializeInt32(stream, &total_a));
    QV_FIELD(SU::DeserializeInt32(stream, &total_b));
    QV_FIELD(SU::DeserializeInt32(stream, &total_c));
    QV_FIELD(SU::DeserializeInt32(stream, &total_d));
    QV_FIELD(current_file_.ReadFromStream(stream));
    int32_t count = 0;
    QV_FIELD(SU::DeserializeInt32(stream, &count));
    files_.clear();
    // Each file takes at least 19 bytes, so a damaged count runs into the end of the data
    // instead of into memory.
    for (int32_t i = 0; i < count; ++i) {
        File file;
        QV_FIELD(file.ReadFromStream(stream));
        files_.push_back(std::move(file));
    }
    QV_FIELD(SU::DeserializeString(stream, &custom_message_));
    return QV_OK;
}

// ---- ServicesDownloadStatus -------------------------------------------------------------------

const std::string ServicesDownloadStatus::dropbox_name = "@Dropbox";
const std::string ServicesDownloadStatus::sync_name = "@UniversalSync";
const std::string ServicesDownloadStatus::send_to_qv_name = "@S2QV";
const std::string ServicesDownloadStatus::cloud_sync_name = "@QVCloud";
const std::string ServicesDownloadStatus::legimi_sync_name = "@LegimiSync";

ServicesDownloadStatus& ServicesDownloadStatus::GetInstance() {
    static ServicesDownloadStatus instance;
    return instance;
}

ServicesDownloadStatus::~ServicesDownloadStatus() {
    UnlockFile();
}

int ServicesDownloadStatus::LockFile() {
    UnlockFile();
    // Close-on-exec: a program started meanwhile must not inherit the lock.
    fd_ = ::open(kFilePath, O_RDWR | O_CREAT | O_CLOEXEC, 0777);
    QV_RETURN_UNLESS(-1 != fd_, QV_FAILED, "Open failed with %d", errno);
    int rc;
    do {
        rc = ::flock(fd_, LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        UnlockFile();
        return QV_FAILED;
    }
    return QV_OK;
}

int ServicesDownloadStatus::UnlockFile() {
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
    return QV_OK;
}

int ServicesDownloadStatus::LoadFromFile() {
    statuses_.clear();
    if (fd_ == -1) return QV_FAILED;
    std::string data;
    char piece[kReadPiece];
    for (;;) {
        ssize_t n = ::read(fd_, piece, sizeof piece);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        data.append(piece, static_cast<size_t>(n));
    }
    ParseRecords(data);
    return QV_OK;
}

void ServicesDownloadStatus::ParseRecords(const std::string& data) {
    std::istringstream stream(data);
    for (;;) {
        DownloadStatus record;
        int err = record.ReadFromStream(stream);
        if (err == QV_TIMEOUT) break;
        if (err != QV_OK) {
            // The records read whole are written back, then the damaged one is taken as far as
            // it was read; the failed stream ends the loop. It never replaces a whole record of
            // its name: its unread fields are zeros, and the next save would put them over a
            // service's real state.
            SaveToFile();
            statuses_.emplace(record.service_name_, std::move(record));
            continue;
        }
        statuses_[record.service_name_] = std::move(record);
    }
}

int ServicesDownloadStatus::SaveToFile() {
    std::ostringstream stream;
    int err = QV_OK;
    for (const auto& entry : statuses_) {
        err = entry.second.WriteToStream(stream);
        if (err != QV_OK) break;
    }
    QV_RETURN_UNLESS(0 == err, QV_FAILED);
    const std::string data = stream.str();
    // Written over the old text first and cut to length after: a process killed in between
    // leaves a tail that the next load repairs, where an emptied file would lose every record.
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::pwrite(fd_, data.data() + done, data.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return QV_FAILED;
        done += static_cast<size_t>(n);
    }
    if (::ftruncate(fd_, static_cast<off_t>(data.size())) != 0) return QV_FAILED;
    ::lseek(fd_, 0, SEEK_SET);
    return QV_OK;
}

bool ServicesDownloadStatus::IsAlive(const DownloadStatus& status) {
    if (status.pid_ == 0) return false;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%i/cmdline", status.pid_);
    struct stat info;
    return ::stat(path, &info) == 0;
}

int ServicesDownloadStatus::IsErrorInt() {
    for (const auto& entry : statuses_) {
        if (entry.second.error_ != 0 && IsAlive(entry.second)) return entry.second.error_;
    }
    return 0;
}

bool ServicesDownloadStatus::IsDownloadingInt() {
    for (const auto& entry : statuses_) {
        if (entry.second.status_ != 0 && IsAlive(entry.second)) return true;
    }
    return false;
}

// IsDownloadingInt and IsErrorInt in one walk, each process looked up once.
int ServicesDownloadStatus::CombinedIndicator() const {
    int error = 0;
    for (const auto& entry : statuses_) {
        const DownloadStatus& status = entry.second;
        if ((status.status_ == 0 && (status.error_ == 0 || error != 0)) || !IsAlive(status)) continue;
        if (status.status_ != 0) return kDownloading;
        error = status.error_;
    }
    if (error == 0) return kIdle;
    return error == DownloadStatus::kErrorNeedsUser ? kNeedsUser : kError;
}

int ServicesDownloadStatus::UpdateStatus(const DownloadStatus& status) {
    std::lock_guard<std::mutex> guard(mutex_);
    int err = LockFile();
    if (err != QV_OK) {
        QV_LOG_FAILED(err, "");
        return err;
    }
    err = LoadFromFile();
    if (err == QV_OK) {
        statuses_[status.service_name_] = status;
        err = SaveToFile();
    }
    if (err != QV_OK) {
        QV_LOG_FAILED(err, "");
        UnlockFile();
        return err;
    }
    mg_set_tarvey_status(CombinedIndicator());
    UnlockFile();
    return QV_OK;
}

std::vector<DownloadStatus> ServicesDownloadStatus::GetStatuses() {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<DownloadStatus> result;
    int err = LockFile();
    if (err == QV_OK) err = LoadFromFile();
    if (err != QV_OK) QV_LOG_FAILED(err, "");
    for (const auto& entry : statuses_) result.push_back(entry.second);
    UnlockFile();
    return result;
}

bool ServicesDownloadStatus::IsDownloading() {
    std::lock_guard<std::mutex> guard(mutex_);
    bool downloading = LockFile() == QV_OK && LoadFromFile() == QV_OK && IsDownloadingInt();
    UnlockFile();
    return downloading;
}

}  // namespace utilities
}  // namespace quorvel
