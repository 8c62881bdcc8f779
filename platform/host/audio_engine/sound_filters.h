// What the engine does to the sound between the decoder and the sink, on interleaved float
// stereo at kOutputRate: the equalizer, the change of tempo without a change of pitch, and the
// volume with the conversion to 16 bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace audio_engine {

// Peaking filters, one per band (centre in Hz, gain in dB, clamped to -12..12), one octave wide.
class Equalizer {
public:
    void SetBands(const std::vector<std::pair<int, int>>& bands);
    bool empty() const { return filters_.empty(); }
    void Process(float* samples, size_t frames);

private:
    struct Biquad {
        double b0, b1, b2, a1, a2;
        double z1[2] = {0, 0};
        double z2[2] = {0, 0};
    };
    std::vector<Biquad> filters_;
};

// Overlap-add of Hann windows: windows are taken from the input `tempo` times as far apart as
// they are laid down in the output, so the sound is faster or slower and keeps its pitch. At
// tempo 1 after a Reset the sound passes untouched.
class TempoStretcher {
public:
    TempoStretcher();
    void SetTempo(double tempo) { tempo_ = tempo; }
    // Forgets what is buffered (after a seek or a change of track).
    void Reset();
    void Process(const std::vector<float>& in, std::vector<float>* out);

private:
    static constexpr size_t kWindow = 2048;  // frames
    static constexpr size_t kHop = kWindow / 2;
    double tempo_ = 1.0;
    bool active_ = false;
    std::vector<float> window_;
    std::vector<float> input_;  // interleaved, not yet consumed
    double input_pos_ = 0;      // frame where the next window starts
    std::vector<float> overlap_;
};

// Scales by `gain` and converts to 16 bits, clipping.
void ToInt16(const std::vector<float>& in, float gain, std::vector<int16_t>* out);

}  // namespace audio_engine
