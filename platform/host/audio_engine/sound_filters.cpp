#include "sound_filters.h"

#include <algorithm>
#include <cmath>

#include "audio_sink.h"
#include "track_decoder.h"

namespace audio_engine {

namespace {
constexpr double kPi = 3.14159265358979323846;
constexpr double kOctaveQ = 1.41;
}  // namespace

void Equalizer::SetBands(const std::vector<std::pair<int, int>>& bands) {
    filters_.clear();
    for (const auto& band : bands) {
        const double frequency = std::clamp(band.first, 20, kOutputRate * 9 / 20);
        const int gain_db = std::clamp(band.second, -12, 12);
        if (gain_db == 0) continue;
        const double a = std::pow(10.0, gain_db / 40.0);
        const double w0 = 2 * kPi * frequency / kOutputRate;
        const double alpha = std::sin(w0) / (2 * kOctaveQ);
        const double a0 = 1 + alpha / a;
        Biquad filter{(1 + alpha * a) / a0, -2 * std::cos(w0) / a0, (1 - alpha * a) / a0,
                      -2 * std::cos(w0) / a0, (1 - alpha / a) / a0};
        filters_.push_back(filter);
    }
}

void Equalizer::Process(float* samples, size_t frames) {
    for (Biquad& f : filters_) {
        for (size_t i = 0; i < frames; ++i) {
            for (int c = 0; c < kOutputChannels; ++c) {
                float& sample = samples[i * kOutputChannels + c];
                const double x = sample;
                const double y = f.b0 * x + f.z1[c];
                f.z1[c] = f.b1 * x - f.a1 * y + f.z2[c];
                f.z2[c] = f.b2 * x - f.a2 * y;
                sample = static_cast<float>(y);
            }
        }
    }
}

TempoStretcher::TempoStretcher() : window_(kWindow), overlap_(kWindow * kOutputChannels) {
    // A periodic Hann window: two of them half a window apart add up to 1.
    for (size_t i = 0; i < kWindow; ++i) {
        window_[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * i / kWindow));
    }
}

void TempoStretcher::Reset() {
    active_ = false;
    input_.clear();
    input_pos_ = 0;
    std::fill(overlap_.begin(), overlap_.end(), 0.0f);
}

void TempoStretcher::Process(const std::vector<float>& in, std::vector<float>* out) {
    out->clear();
    if (!active_ && tempo_ == 1.0) {
        *out = in;
        return;
    }
    active_ = true;
    input_.insert(input_.end(), in.begin(), in.end());
    const size_t channels = kOutputChannels;
    while (static_cast<size_t>(input_pos_) + kWindow <= input_.size() / channels) {
        const float* from = input_.data() + static_cast<size_t>(input_pos_) * channels;
        for (size_t i = 0; i < kWindow * channels; ++i) overlap_[i] += from[i] * window_[i / channels];
        out->insert(out->end(), overlap_.begin(), overlap_.begin() + kHop * channels);
        std::copy(overlap_.begin() + kHop * channels, overlap_.end(), overlap_.begin());
        std::fill(overlap_.end() - kHop * channels, overlap_.end(), 0.0f);
        input_pos_ += kHop * tempo_;
    }
    // At a fast tempo the next window may start beyond what has come in so far.
    const size_t consumed = std::min(static_cast<size_t>(input_pos_), input_.size() / channels);
    input_.erase(input_.begin(), input_.begin() + consumed * channels);
    input_pos_ -= static_cast<double>(consumed);
}

void ToInt16(const std::vector<float>& in, float gain, std::vector<int16_t>* out) {
    out->resize(in.size());
    for (size_t i = 0; i < in.size(); ++i) {
        const float scaled = std::clamp(in[i] * gain, -1.0f, 1.0f);
        (*out)[i] = static_cast<int16_t>(std::lrint(scaled * 32767.0f));
    }
}

}  // namespace audio_engine
