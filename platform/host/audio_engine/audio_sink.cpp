#include "audio_sink.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace audio_engine {

namespace {

class NullSink : public AudioSink {
public:
    bool Write(const int16_t*, size_t) override { return true; }
    std::string Describe() const override { return "null"; }
};

void PutLe(uint8_t* at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

// The header is rewritten with the sizes after every write, so the file is whole at any moment:
// a listener may open it while the engine still plays, and a killed process leaves a good file.
class WavSink : public AudioSink {
public:
    WavSink(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~WavSink() override { close(fd_); }

    bool WriteHeader() {
        constexpr int kBytesPerFrame = 4;
        uint8_t header[44] = {};
        std::memcpy(header, "RIFF", 4);
        PutLe(header + 4, static_cast<uint32_t>(36 + data_bytes_), 4);
        std::memcpy(header + 8, "WAVEfmt ", 8);
        PutLe(header + 16, 16, 4);  // size of the format block
        PutLe(header + 20, 1, 2);   // PCM
        PutLe(header + 22, 2, 2);   // channels
        PutLe(header + 24, kOutputRate, 4);
        PutLe(header + 28, kOutputRate * kBytesPerFrame, 4);
        PutLe(header + 32, kBytesPerFrame, 2);
        PutLe(header + 34, 16, 2);  // bits per sample
        std::memcpy(header + 36, "data", 4);
        PutLe(header + 40, static_cast<uint32_t>(data_bytes_), 4);
        return pwrite(fd_, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header);
    }

    bool Write(const int16_t* samples, size_t frames) override {
        const size_t bytes = frames * 2 * sizeof(int16_t);
        // A RIFF file ends at 4 GiB; what would pass it is dropped.
        if (data_bytes_ + bytes > kMaxData) return false;
        const auto* data = reinterpret_cast<const uint8_t*>(samples);
        for (size_t done = 0; done < bytes;) {
            const ssize_t wrote = pwrite(fd_, data + done, bytes - done, 44 + data_bytes_ + done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) return false;
            done += static_cast<size_t>(wrote);
        }
        data_bytes_ += bytes;
        return WriteHeader();
    }

    std::string Describe() const override { return "wav:" + path_; }

private:
    static constexpr uint64_t kMaxData = 0xFFFFFFFFull - 36;
    int fd_;
    std::string path_;
    uint64_t data_bytes_ = 0;
};

}  // namespace

std::unique_ptr<AudioSink> MakeSink(const std::string& target, std::string* error) {
    if (target.empty() || target == "null") return std::make_unique<NullSink>();
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = target + ": " + std::strerror(errno);
        return nullptr;
    }
    auto sink = std::make_unique<WavSink>(fd, target);
    if (!sink->WriteHeader()) {
        *error = target + ": can't write";
        return nullptr;
    }
    return sink;
}

}  // namespace audio_engine
