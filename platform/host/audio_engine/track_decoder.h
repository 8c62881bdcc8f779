// Decodes the audio stream of one file to interleaved float stereo at a rate the caller picks,
// frame by frame, with a clock in the file's own time and exact seeks (the demuxer lands on an
// earlier packet; what lies before the target is decoded and dropped).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media_source.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

namespace audio_engine {

constexpr int kOutputChannels = 2;

class TrackDecoder {
public:
    static std::unique_ptr<TrackDecoder> Open(const std::string& path, std::string* error);
    ~TrackDecoder();
    TrackDecoder(const TrackDecoder&) = delete;
    TrackDecoder& operator=(const TrackDecoder&) = delete;

    const MediaInfo& info() const { return source_->info(); }
    // The file's time at the end of what was decoded last, milliseconds.
    int64_t position_ms() const { return position_ms_; }

    bool Seek(int64_t ms);
    // Replaces `out` with the next piece of sound (frames of kOutputChannels floats at `rate`).
    // False at the end of the stream or on an error that ends it.
    bool Next(int rate, std::vector<float>* out);

private:
    TrackDecoder() = default;
    bool ReceiveFrame();
    bool Convert(int rate, std::vector<float>* out);
    bool ConfigureResampler(int rate);

    std::unique_ptr<MediaSource> source_;
    AVCodecContext* codec_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* frame_ = nullptr;
    SwrContext* resampler_ = nullptr;
    int resampler_rate_ = 0;
    bool input_done_ = false;
    int64_t position_ms_ = 0;
    int64_t skip_until_ms_ = 0;  // after a seek: sound before this is dropped
};

}  // namespace audio_engine
