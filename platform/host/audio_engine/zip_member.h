// One member of a zip archive as a byte stream for the demuxer. Members are inflated as they are
// read, so a seek forward reads and drops, and a seek backward starts the member again: the
// demuxer reads forward almost always, and a probe of the tail costs one more pass.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace audio_engine {

class ZipMember {
public:
    // The member `entry` of `archive` (names compared without regard to case); null when the
    // archive or the member does not open.
    static std::unique_ptr<ZipMember> Open(const std::string& archive, const std::string& entry);
    ~ZipMember();
    ZipMember(const ZipMember&) = delete;
    ZipMember& operator=(const ZipMember&) = delete;

    // Bytes read (0 at the end), or -1.
    int Read(uint8_t* buffer, int size);
    // An absolute offset within the member; false past its end or on a damaged archive.
    bool SeekTo(int64_t offset);
    int64_t Size() const { return size_; }
    int64_t Position() const { return position_; }

private:
    explicit ZipMember(void* archive) : archive_(archive) {}
    bool Restart();

    void* archive_;  // unzFile
    int64_t size_ = 0;
    int64_t position_ = 0;
};

// Splits "<archive>:#zip(<entry>)"; false for a plain path.
bool SplitZipPath(const std::string& path, std::string* archive, std::string* entry);

}  // namespace audio_engine
