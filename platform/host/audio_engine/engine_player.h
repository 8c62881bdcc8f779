// The host's audio engine: the object behind the library's IPlayer when
// "/zelgrot/lib/libaudio-engine.so" is loaded.
//
// It plays a list of tracks (plain files or zip members) for real: each engine has one playback
// thread that decodes (FFmpeg), applies the equalizer, tempo and volume, and writes 16-bit stereo
// at 44.1 kHz to its sink. The sink and the pace are chosen by the environment when the engine is
// made, and again at HandlePlayerStateChanged:
//
//   QV_AUDIO_OUT   unset, "" or "null": the null sink; a path: a WAV file, created or emptied
//                  when the engine opens its output
//   QV_AUDIO_PACE  how many times real time the output is consumed: 1 (the default) plays at
//                  the speed of a loudspeaker, 0 as fast as decoding goes
//
// One mutex guards every field the thread shares with callers. Files are opened and decoded under
// it (a frame at a time, short); the sink is written and PlayerCb is called without it, on the
// playback thread only. Calls of PlayerCb happen between frames: one that pauses or stops the
// player from inside the callback stops the sound before another frame is written.
#pragma once

#include <atomic>
#include <condition_variable>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "audio_sink.h"
#include "common_utilities/services/iplayer.h"
#include "sound_filters.h"
#include "track_decoder.h"

namespace audio_engine {

class EnginePlayer : public quorvel::utilities::IPlayer {
public:
    EnginePlayer();
    ~EnginePlayer() override;
    EnginePlayer(const EnginePlayer&) = delete;
    EnginePlayer& operator=(const EnginePlayer&) = delete;

    static constexpr int kMaxVolume = 100;

    void SetPlayList(const std::vector<Track>& tracks) override;
    int PlayTrack(int index, int position, bool play) override;
    int GetCurrentTrack() override;
    void PreviousTrack() override;
    void NextTrack() override;
    void SetMode(PlayMode mode) override;
    PlayMode GetMode() override;
    int GetTrackSize() override;
    void SetTrackPosition(int position) override;
    int GetTrackPosition() override;
    void SetState(PlayState state) override;
    PlayState GetState() override;
    void TogglePlaying() override;
    void SetVolume(int volume) override;
    int GetVolume() override;
    int GetMaxVolume() override;
    void HandlePlayerStateChanged() override;
    void EnqueueTrack(unsigned index) override;
    void DequeueTrack(unsigned index) override;
    int GetTrackEnqueueIndex(unsigned index) override;
    Track GetPlayingTrack() override;
    void setCb(quorvel::utilities::PlayerCb* callback) override;
    void setTempo(double tempo) override;
    double getTempo() override;
    void setSampleRateMultiplier(double multiplier) override;
    double getSampleRateMultiplier() override;
    void setEqualizerSettings(std::vector<EqualizerBand> settings) override;
    std::map<std::string, std::string> getMetadata() override;
    std::vector<Chapter> getChapters() override;
    const std::vector<unsigned char>* getCover() override;
    int openFile(std::string path) override;

private:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = std::chrono::steady_clock;
    using Event = std::function<void(quorvel::utilities::PlayerCb&)>;

    // ---- under mutex_ ----
    bool OpenTrackLocked(int index, int64_t position_ms, std::string* error);
    void SetStateLocked(PlayState state);
    void SeekLocked(int64_t position_ms);
    void AnnounceLocked();
    int ChooseNextLocked(bool by_user);
    void AdvanceLocked(bool by_user);
    void RestartPaceLocked();
    void Post(Event event);
    void ReadEnvironmentLocked();

    // ---- playback thread ----
    void Run();
    void DeliverEvents(Lock& lock);
    bool PlayOneFrame(Lock& lock);
    void ReopenSink(Lock& lock);

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable delivered_;
    std::thread thread_;

    bool quit_ = false;
    bool sink_stale_ = true;
    std::string sink_target_;
    double pace_ = 1.0;
    std::unique_ptr<AudioSink> sink_;  // the thread's
    std::vector<float> decoded_, stretched_;  // the thread's
    std::vector<int16_t> pcm_;                // the thread's

    std::vector<Track> tracks_;
    std::vector<unsigned> queue_;
    int current_ = -1;
    std::unique_ptr<TrackDecoder> decoder_;
    PlayMode mode_ = ModeSequential;
    PlayState state_ = StateStopped;
    int64_t position_ms_ = 0;
    int announced_second_ = -1;
    int volume_ = kMaxVolume;
    double tempo_ = 1.0;
    double rate_multiplier_ = 1.0;
    Equalizer equalizer_;
    TempoStretcher stretcher_;
    MediaInfo info_;  // of the file the application opened last
    std::mt19937 random_{std::random_device{}()};

    Clock::time_point pace_start_;
    uint64_t frames_since_pace_start_ = 0;

    quorvel::utilities::PlayerCb* callback_ = nullptr;
    std::deque<Event> events_;
    bool delivering_ = false;
};

}  // namespace audio_engine
