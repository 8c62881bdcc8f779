#include "common_utilities/old_zip/qv_zip_manager.h"

#include <unzip.h>

#include <algorithm>
#include <climits>

namespace quorvel {
namespace {

// Names longer than this are cut; the list keeps what fits.
constexpr size_t kNameBuffer = 512;
constexpr size_t kSkipChunk = 4096;

}  // namespace

QVZipManager::~QVZipManager() {
    if (IsOpen()) Close();
}

bool QVZipManager::IsOpen() const {
    return zip_f_ != nullptr && !zip_filepath.empty();
}

bool QVZipManager::IsCurrentOpen() const {
    return IsOpen() && !current_file.empty();
}

int QVZipManager::Open(const std::string& zip_filepath, const std::string& current_file) {
    QV_RETURN_IF(zip_filepath.empty(), QVZM_BAD_FILE_PATH, "Bad file path [%s].",
                 zip_filepath.c_str());
    QV_RETURN_IF(IsOpen(), QVZM_RESOURCE_BUSY,
                 "This object is busy by file [%s], can't open file [%s].",
                 this->zip_filepath.c_str(), zip_filepath.c_str());
    // The 64-bit entry reads archives past 4 GB too; for smaller ones it is the same reader.
    zip_f_ = unzOpen64(zip_filepath.c_str());
    QV_RETURN_UNLESS(zip_f_, QVZM_NOT_OPENED, "Can't open file [%s].", zip_filepath.c_str());
    this->zip_filepath = zip_filepath;
    if (current_file.empty()) return QVZM_OK;

    // The 2 asks minizip to compare names without regard to case.
    QV_RETURN_UNLESS(unzLocateFile(zip_f_, current_file.c_str(), 2) == UNZ_OK,
                     QVZM_CURRENT_NOT_OPENED, "Can't open file in archive [%s].",
                     current_file.c_str());
    QV_RETURN_UNLESS(unzOpenCurrentFile(zip_f_) == UNZ_OK, QVZM_CURRENT_NOT_OPENED,
                     "Can't open file in archive [%s].", current_file.c_str());
    this->current_file = current_file;
    return QVZM_OK;
}

int QVZipManager::Close() {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    if (IsCurrentOpen()) unzCloseCurrentFile(zip_f_);
    unzClose(zip_f_);
    zip_f_ = nullptr;
    zip_filepath.clear();
    current_file.clear();
    return QVZM_OK;
}

int QVZipManager::ChangeFile(const std::string& current_file) {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    if (IsCurrentOpen()) unzCloseCurrentFile(zip_f_);
    this->current_file.clear();
    QV_RETURN_UNLESS(unzLocateFile(zip_f_, current_file.c_str(), 2) == UNZ_OK &&
                         unzOpenCurrentFile(zip_f_) == UNZ_OK,
                     QVZM_CURRENT_NOT_OPENED, "Can't open file in archive [%s].",
                     current_file.c_str());
    this->current_file = current_file;
    return QVZM_OK;
}

int QVZipManager::Read(void* buf, size_t size) {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    QV_RETURN_UNLESS(IsCurrentOpen(), QVZM_CURRENT_NOT_OPENED, "No opened current file.");
    QV_RETURN_UNLESS(buf, QVZM_BAD_INPUT_PARAMS, "Bad param \"buf\" is nullptr.");
    QV_RETURN_UNLESS(size, QVZM_BAD_INPUT_PARAMS, "Bad param \"size\" [%d].",
                     static_cast<int>(size));
    // minizip counts in unsigned and answers in int: a larger request would come back negative.
    const auto len = static_cast<unsigned>(std::min<size_t>(size, INT_MAX));
    return unzReadCurrentFile(zip_f_, buf, len);
}

long QVZipManager::Skip(size_t size) {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    QV_RETURN_UNLESS(IsCurrentOpen(), QVZM_CURRENT_NOT_OPENED, "No opened current file.");
    char buffer[kSkipChunk];
    size_t skipped = 0;
    while (skipped < size) {
        const auto chunk = static_cast<unsigned>(std::min(kSkipChunk, size - skipped));
        const int got = unzReadCurrentFile(zip_f_, buffer, chunk);
        if (got <= 0) break;
        skipped += static_cast<size_t>(got);
    }
    return static_cast<long>(skipped);
}

long QVZipManager::Tell() const {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    QV_RETURN_UNLESS(IsCurrentOpen(), QVZM_CURRENT_NOT_OPENED, "No opened current file.");
    return static_cast<long>(unztell64(zip_f_));
}

long QVZipManager::GetCurrentFileSize() const {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    QV_RETURN_UNLESS(IsCurrentOpen(), QVZM_CURRENT_NOT_OPENED, "No opened current file.");
    unz_file_info64 info{};
    QV_RETURN_UNLESS(
        unzGetCurrentFileInfo64(zip_f_, &info, nullptr, 0, nullptr, 0, nullptr, 0) == UNZ_OK,
        QVZM_ERROR_GET_INFO, "Error on get file info [%s] in archive [%s]", current_file.c_str(),
        zip_filepath.c_str());
    return static_cast<long>(info.uncompressed_size);
}

int QVZipManager::GetFilesList(std::list<std::string>& out) {
    QV_RETURN_UNLESS(IsOpen(), QVZM_NOT_OPENED, "No opened file.");
    // minizip keeps the member's reading state until the next open or close of the archive;
    // only this object's idea of an open member is dropped.
    current_file.clear();
    QV_RETURN_UNLESS(unzGoToFirstFile(zip_f_) == UNZ_OK, QVZM_ERROR_GET_INFO,
                     "Error go to first file.");
    for (;;) {
        char name[kNameBuffer] = {};
        unz_file_info64 info{};
        if (unzGetCurrentFileInfo64(zip_f_, &info, name, sizeof name - 1, nullptr, 0, nullptr, 0) !=
                UNZ_OK ||
            name[0] == '\0')
            return QVZM_OK;
        out.emplace_back(name);
        const int rc = unzGoToNextFile(zip_f_);
        if (rc == UNZ_END_OF_LIST_OF_FILE) return QVZM_OK;
        if (rc != UNZ_OK) {
            QV_LOG_ERROR("Error go to next file.");
            return QVZM_OK;
        }
    }
}

}  // namespace quorvel
