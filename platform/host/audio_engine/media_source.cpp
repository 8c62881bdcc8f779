#include "media_source.h"

#include <cctype>

#include "zip_member.h"

namespace audio_engine {

namespace {

constexpr int kIoBufferSize = 64 * 1024;

int ReadMember(void* opaque, uint8_t* buffer, int size) {
    const int got = static_cast<ZipMember*>(opaque)->Read(buffer, size);
    if (got == 0) return AVERROR_EOF;
    return got < 0 ? AVERROR(EIO) : got;
}

int64_t SeekMember(void* opaque, int64_t offset, int whence) {
    auto* member = static_cast<ZipMember*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE: return member->Size();
        case SEEK_CUR: offset += member->Position(); break;
        case SEEK_END: offset += member->Size(); break;
        case SEEK_SET: break;
        default: return AVERROR(EINVAL);
    }
    return member->SeekTo(offset) ? offset : AVERROR(EIO);
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

void AddTags(const AVDictionary* tags, std::map<std::string, std::string>* into) {
    const AVDictionaryEntry* tag = nullptr;
    while ((tag = av_dict_get(tags, "", tag, AV_DICT_IGNORE_SUFFIX))) {
        into->emplace(Lower(tag->key), tag->value);  // the first one of a key stays
    }
}

int32_t ToMilliseconds(int64_t value, AVRational time_base) {
    return static_cast<int32_t>(av_rescale_q(value, time_base, AVRational{1, 1000}));
}

}  // namespace

std::string ErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::unique_ptr<MediaSource> MediaSource::Open(const std::string& path, std::string* error) {
    std::unique_ptr<MediaSource> source(new MediaSource());
    if (!source->OpenInput(path, error)) return nullptr;
    int err = avformat_find_stream_info(source->format_, nullptr);
    if (err < 0) {
        *error = "can't read the streams: " + ErrorText(err);
        return nullptr;
    }
    err = av_find_best_stream(source->format_, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (err < 0) {
        *error = "no audio stream";
        return nullptr;
    }
    source->stream_index_ = err;
    source->ReadInfo();
    return source;
}

bool MediaSource::OpenInput(const std::string& path, std::string* error) {
    std::string archive, entry;
    if (SplitZipPath(path, &archive, &entry)) {
        member_ = ZipMember::Open(archive, entry);
        if (!member_) {
            *error = "no member \"" + entry + "\" in " + archive;
            return false;
        }
        auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferSize));
        io_ = avio_alloc_context(buffer, kIoBufferSize, 0, member_.get(), ReadMember, nullptr,
                                 SeekMember);
        format_ = avformat_alloc_context();
        if (!io_ || !format_) {
            if (!io_) av_free(buffer);
            *error = "out of memory";
            return false;
        }
        format_->pb = io_;
        format_->flags |= AVFMT_FLAG_CUSTOM_IO;
    }
    // The name helps the probe of a member too: the entry's suffix.
    const std::string name = member_ ? entry : path;
    const int err = avformat_open_input(&format_, name.c_str(), nullptr, nullptr);
    if (err < 0) {
        *error = ErrorText(err);
        return false;
    }
    return true;
}

void MediaSource::ReadInfo() {
    if (format_->duration != AV_NOPTS_VALUE && format_->duration > 0) {
        info_.duration_ms = format_->duration / (AV_TIME_BASE / 1000);
    } else if (audio_stream()->duration != AV_NOPTS_VALUE) {
        info_.duration_ms = ToMilliseconds(audio_stream()->duration, audio_stream()->time_base);
    }
    AddTags(format_->metadata, &info_.metadata);
    AddTags(audio_stream()->metadata, &info_.metadata);
    for (unsigned i = 0; i < format_->nb_chapters; ++i) {
        const AVChapter* in = format_->chapters[i];
        quorvel::audio::AudioBook::Chapter chapter;
        chapter.no = static_cast<int32_t>(i + 1);
        const AVDictionaryEntry* title = av_dict_get(in->metadata, "title", nullptr, 0);
        chapter.title = title ? title->value : "";
        chapter.start_position = ToMilliseconds(in->start, in->time_base);
        chapter.end_position = ToMilliseconds(in->end, in->time_base);
        info_.chapters.push_back(chapter);
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        const AVStream* stream = format_->streams[i];
        if ((stream->disposition & AV_DISPOSITION_ATTACHED_PIC) && stream->attached_pic.size > 0) {
            const AVPacket& picture = stream->attached_pic;
            info_.cover.assign(picture.data, picture.data + picture.size);
            break;
        }
    }
}

MediaSource::~MediaSource() {
    // With our own I/O the format context does not free it.
    avformat_close_input(&format_);
    if (io_) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
}

}  // namespace audio_engine
