// Where the engine's sound goes: nowhere (the null sink, for a device without speakers and for
// tests), or a WAV file a person can listen to. Both take 16-bit stereo at kOutputRate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace audio_engine {

constexpr int kOutputRate = 44100;

class AudioSink {
public:
    virtual ~AudioSink() = default;
    // `frames` frames of interleaved stereo; false when the output failed (the disk is full).
    virtual bool Write(const int16_t* samples, size_t frames) = 0;
    virtual std::string Describe() const = 0;
};

// `target` "" or "null" gives the null sink, anything else a WAV file at that path, created or
// emptied. Null with a reason in `error` when the file can't be made.
std::unique_ptr<AudioSink> MakeSink(const std::string& target, std::string* error);

}  // namespace audio_engine
