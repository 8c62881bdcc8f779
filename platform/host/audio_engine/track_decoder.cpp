#include "track_decoder.h"

#include <algorithm>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace audio_engine {

std::unique_ptr<TrackDecoder> TrackDecoder::Open(const std::string& path, std::string* error) {
    std::unique_ptr<TrackDecoder> decoder(new TrackDecoder());
    decoder->source_ = MediaSource::Open(path, error);
    if (!decoder->source_) return nullptr;
    const AVCodecParameters* params = decoder->source_->audio_stream()->codecpar;
    const AVCodec* codec = avcodec_find_decoder(params->codec_id);
    if (!codec) {
        *error = std::string("no decoder for ") + avcodec_get_name(params->codec_id);
        return nullptr;
    }
    decoder->codec_ = avcodec_alloc_context3(codec);
    decoder->packet_ = av_packet_alloc();
    decoder->frame_ = av_frame_alloc();
    if (!decoder->codec_ || !decoder->packet_ || !decoder->frame_) {
        *error = "out of memory";
        return nullptr;
    }
    int err = avcodec_parameters_to_context(decoder->codec_, params);
    if (err >= 0) err = avcodec_open2(decoder->codec_, codec, nullptr);
    if (err < 0) {
        *error = "can't open the decoder: " + ErrorText(err);
        return nullptr;
    }
    return decoder;
}

TrackDecoder::~TrackDecoder() {
    swr_free(&resampler_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
}

bool TrackDecoder::Seek(int64_t ms) {
    const int64_t target = av_rescale_q(ms, AVRational{1, 1000}, AV_TIME_BASE_Q);
    if (av_seek_frame(source_->format(), -1, target, AVSEEK_FLAG_BACKWARD) < 0 &&
        av_seek_frame(source_->format(), -1, target, AVSEEK_FLAG_ANY) < 0) {
        return false;
    }
    avcodec_flush_buffers(codec_);
    if (resampler_) swr_init(resampler_);  // drops what it buffered
    input_done_ = false;
    position_ms_ = ms;
    skip_until_ms_ = ms;
    return true;
}

bool TrackDecoder::ReceiveFrame() {
    for (;;) {
        const int err = avcodec_receive_frame(codec_, frame_);
        if (err == 0) return true;
        if (err != AVERROR(EAGAIN) || input_done_) return false;
        const int read = av_read_frame(source_->format(), packet_);
        if (read < 0) {
            input_done_ = true;
            avcodec_send_packet(codec_, nullptr);  // drain what the decoder holds
            continue;
        }
        if (packet_->stream_index == source_->stream_index()) {
            // A damaged packet is skipped, as a player would.
            avcodec_send_packet(codec_, packet_);
        }
        av_packet_unref(packet_);
    }
}

bool TrackDecoder::ConfigureResampler(int rate) {
    if (resampler_ && rate == resampler_rate_) return true;
    swr_free(&resampler_);
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    if (swr_alloc_set_opts2(&resampler_, &stereo, AV_SAMPLE_FMT_FLT, rate, &codec_->ch_layout,
                            codec_->sample_fmt, codec_->sample_rate, 0, nullptr) < 0 ||
        swr_init(resampler_) < 0) {
        swr_free(&resampler_);
        return false;
    }
    resampler_rate_ = rate;
    return true;
}

bool TrackDecoder::Next(int rate, std::vector<float>* out) {
    out->clear();
    while (ReceiveFrame()) {
        const AVRational time_base = source_->audio_stream()->time_base;
        const int64_t pts = frame_->best_effort_timestamp;
        const int64_t start_ms =
            pts == AV_NOPTS_VALUE ? position_ms_ : av_rescale_q(pts, time_base, {1, 1000});
        const int64_t length_ms =
            frame_->sample_rate > 0 ? frame_->nb_samples * 1000LL / frame_->sample_rate : 0;
        const bool converted = Convert(rate, out);
        av_frame_unref(frame_);
        if (!converted) return false;
        position_ms_ = start_ms + length_ms;
        if (position_ms_ <= skip_until_ms_) {
            out->clear();
            continue;
        }
        if (start_ms < skip_until_ms_) {
            // Drop the part of this frame before the seek target.
            const size_t drop = static_cast<size_t>((skip_until_ms_ - start_ms) * rate / 1000) *
                                kOutputChannels;
            out->erase(out->begin(), out->begin() + std::min(drop, out->size()));
        }
        skip_until_ms_ = 0;
        return true;
    }
    return false;
}

bool TrackDecoder::Convert(int rate, std::vector<float>* out) {
    if (!ConfigureResampler(rate)) return false;
    const int room = swr_get_out_samples(resampler_, frame_->nb_samples);
    if (room < 0) return false;
    const size_t old_size = out->size();
    out->resize(old_size + static_cast<size_t>(room) * kOutputChannels);
    auto* target = reinterpret_cast<uint8_t*>(out->data() + old_size);
    const int made = swr_convert(resampler_, &target, room,
                                 const_cast<const uint8_t**>(frame_->extended_data),
                                 frame_->nb_samples);
    if (made < 0) return false;
    out->resize(old_size + static_cast<size_t>(made) * kOutputChannels);
    return true;
}

}  // namespace audio_engine
