#include "zip_member.h"

#include <minizip/unzip.h>

#include <algorithm>
#include <vector>

namespace audio_engine {

namespace {
constexpr int kCaseInsensitive = 2;
}

bool SplitZipPath(const std::string& path, std::string* archive, std::string* entry) {
    static const std::string kMarker = ":#zip(";
    const size_t at = path.find(kMarker);
    if (at == std::string::npos || path.back() != ')') return false;
    const size_t begin = at + kMarker.size();
    if (begin >= path.size()) return false;
    *archive = path.substr(0, at);
    *entry = path.substr(begin, path.size() - 1 - begin);
    return !archive->empty() && !entry->empty();
}

std::unique_ptr<ZipMember> ZipMember::Open(const std::string& archive, const std::string& entry) {
    unzFile zip = unzOpen64(archive.c_str());
    if (!zip) return nullptr;
    std::unique_ptr<ZipMember> member(new ZipMember(zip));
    unz_file_info64 info{};
    if (unzLocateFile(zip, entry.c_str(), kCaseInsensitive) != UNZ_OK ||
        unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK ||
        unzOpenCurrentFile(zip) != UNZ_OK) {
        return nullptr;
    }
    member->size_ = static_cast<int64_t>(info.uncompressed_size);
    return member;
}

ZipMember::~ZipMember() {
    unzCloseCurrentFile(archive_);
    unzClose(archive_);
}

int ZipMember::Read(uint8_t* buffer, int size) {
    const int got = unzReadCurrentFile(archive_, buffer, static_cast<unsigned>(size));
    if (got > 0) position_ += got;
    return got < 0 ? -1 : got;
}

bool ZipMember::Restart() {
    unzCloseCurrentFile(archive_);
    position_ = 0;
    return unzOpenCurrentFile(archive_) == UNZ_OK;
}

bool ZipMember::SeekTo(int64_t offset) {
    if (offset < 0 || offset > size_) return false;
    if (offset < position_ && !Restart()) return false;
    std::vector<uint8_t> scratch(64 * 1024);
    while (position_ < offset) {
        const int64_t want = std::min<int64_t>(offset - position_, scratch.size());
        if (Read(scratch.data(), static_cast<int>(want)) <= 0) return false;
    }
    return true;
}

}  // namespace audio_engine
