// An audio file opened for the demuxer: a plain path, or a member of a zip archive in the form
// "<archive>:#zip(<entry>)", with its best audio stream found. What the file tells about itself
// (length, tags, chapters, attached picture) is read once at opening into MediaInfo.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/audio/audio_book.h"

namespace audio_engine {

class ZipMember;

struct MediaInfo {
    int64_t duration_ms = 0;
    // Container and stream tags, keys in lower case; the container's win.
    std::map<std::string, std::string> metadata;
    // Numbered from 1, positions in milliseconds, `path` empty.
    std::vector<quorvel::audio::AudioBook::Chapter> chapters;
    std::vector<unsigned char> cover;  // the attached picture as stored, or empty
};

class MediaSource {
public:
    // Null with a reason in `error` when the file can't be read or has no audio.
    static std::unique_ptr<MediaSource> Open(const std::string& path, std::string* error);
    ~MediaSource();
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    AVFormatContext* format() const { return format_; }
    AVStream* audio_stream() const { return format_->streams[stream_index_]; }
    int stream_index() const { return stream_index_; }
    const MediaInfo& info() const { return info_; }

private:
    MediaSource() = default;
    bool OpenInput(const std::string& path, std::string* error);
    void ReadInfo();

    std::unique_ptr<ZipMember> member_;
    AVIOContext* io_ = nullptr;
    AVFormatContext* format_ = nullptr;
    int stream_index_ = -1;
    MediaInfo info_;
};

// FFmpeg's text for an error code.
std::string ErrorText(int code);

}  // namespace audio_engine
