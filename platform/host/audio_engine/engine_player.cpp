#include "engine_player.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace audio_engine {

using quorvel::utilities::PlayerCb;

namespace {
constexpr int64_t kRestartRatherThanBackMs = 3000;
}

EnginePlayer::EnginePlayer() {
    {
        Lock lock(mutex_);
        ReadEnvironmentLocked();
    }
    thread_ = std::thread(&EnginePlayer::Run, this);
}

EnginePlayer::~EnginePlayer() {
    {
        Lock lock(mutex_);
        quit_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void EnginePlayer::ReadEnvironmentLocked() {
    const char* target = std::getenv("QV_AUDIO_OUT");
    sink_target_ = target ? target : "";
    const char* pace = std::getenv("QV_AUDIO_PACE");
    pace_ = pace && *pace ? std::strtod(pace, nullptr) : 1.0;
    if (!(pace_ >= 0) || !std::isfinite(pace_)) pace_ = 1.0;
    sink_stale_ = true;
}

// ---- Helpers under the lock -------------------------------------------------------------------

void EnginePlayer::Post(Event event) {
    events_.push_back(std::move(event));
    wake_.notify_all();
}

void EnginePlayer::RestartPaceLocked() {
    pace_start_ = Clock::now();
    frames_since_pace_start_ = 0;
}

void EnginePlayer::SetStateLocked(PlayState state) {
    if (state_ == state) return;
    state_ = state;
    if (state == StatePlaying) RestartPaceLocked();
    Post([state](PlayerCb& cb) { cb.onStateChanged(state); });
}

void EnginePlayer::SeekLocked(int64_t position_ms) {
    position_ms = std::clamp<int64_t>(position_ms, 0, decoder_->info().duration_ms);
    decoder_->Seek(position_ms);
    position_ms_ = position_ms;
    stretcher_.Reset();
    RestartPaceLocked();
    const int second = static_cast<int>(position_ms / 1000);
    announced_second_ = second;
    Post([second](PlayerCb& cb) { cb.onPositionChanged(second); });
}

bool EnginePlayer::OpenTrackLocked(int index, int64_t position_ms, std::string* error) {
    auto decoder = TrackDecoder::Open(tracks_[index].path, error);
    if (!decoder) return false;
    decoder_ = std::move(decoder);
    current_ = index;
    Post([index](PlayerCb& cb) { cb.onTrackChanged(index); });
    SeekLocked(position_ms);
    return true;
}

void EnginePlayer::AnnounceLocked() {
    const PlayState state = state_;
    Post([state](PlayerCb& cb) { cb.onStateChanged(state); });
    if (current_ < 0) return;
    const int index = current_;
    const int second = static_cast<int>(position_ms_ / 1000);
    Post([index](PlayerCb& cb) { cb.onTrackChanged(index); });
    Post([second](PlayerCb& cb) { cb.onPositionChanged(second); });
}

// The next list index by the queue and the mode, or -1. A user's "next" always moves on; the end
// of a track follows the mode.
int EnginePlayer::ChooseNextLocked(bool by_user) {
    const int count = static_cast<int>(tracks_.size());
    while (!queue_.empty()) {
        const unsigned next = queue_.front();
        queue_.erase(queue_.begin());
        if (next < tracks_.size()) return static_cast<int>(next);
    }
    if (count == 0) return -1;
    switch (by_user ? (mode_ == ModeShuffle ? ModeShuffle : ModeRepeatAll) : mode_) {
        case ModeSingle: return -1;
        case ModeRepeatOne: return std::max(current_, 0);
        case ModeRepeatAll: return (current_ + 1) % count;
        case ModeShuffle: {
            if (count == 1) return 0;
            const int other = std::uniform_int_distribution<int>(0, count - 2)(random_);
            return other >= current_ ? other + 1 : other;
        }
        case ModeSequential:
        default: return current_ + 1 < count ? current_ + 1 : -1;
    }
}

void EnginePlayer::AdvanceLocked(bool by_user) {
    for (size_t attempts = tracks_.size(); attempts > 0; --attempts) {
        const int next = ChooseNextLocked(by_user);
        if (next < 0) break;
        std::string error;
        if (OpenTrackLocked(next, 0, &error)) {
            if (by_user) info_ = decoder_->info();
            return;
        }
        Post([next, error](PlayerCb& cb) { cb.onError(next, error); });
        decoder_.reset();
        current_ = next;
    }
    if (by_user && decoder_) return;  // "next" on the last track of the list: nothing to do
    SetStateLocked(StateStopped);
    if (decoder_) SeekLocked(0);
    Post([](PlayerCb& cb) { cb.onPlaylistEnd(); });
}

// ---- Operations -------------------------------------------------------------------------------

void EnginePlayer::SetPlayList(const std::vector<Track>& tracks) {
    Lock lock(mutex_);
    tracks_ = tracks;
    queue_.clear();
    decoder_.reset();
    current_ = -1;
    position_ms_ = 0;
    SetStateLocked(StateStopped);
}

int EnginePlayer::PlayTrack(int index, int position, bool play) {
    Lock lock(mutex_);
    if (index < 0 || index >= static_cast<int>(tracks_.size())) return QV_INVAL;
    std::string error;
    if (!OpenTrackLocked(index, position * 1000LL, &error)) return QV_FAILED;
    info_ = decoder_->info();
    SetStateLocked(play ? StatePlaying : StatePaused);
    return QV_OK;
}

int EnginePlayer::GetCurrentTrack() {
    Lock lock(mutex_);
    return current_;
}

void EnginePlayer::PreviousTrack() {
    Lock lock(mutex_);
    if (!decoder_) return;
    if (position_ms_ > kRestartRatherThanBackMs || (current_ == 0 && mode_ != ModeRepeatAll)) {
        SeekLocked(0);
        return;
    }
    const int count = static_cast<int>(tracks_.size());
    const int previous = (current_ - 1 + count) % count;
    std::string error;
    if (OpenTrackLocked(previous, 0, &error)) {
        info_ = decoder_->info();
    } else {
        Post([previous, error](PlayerCb& cb) { cb.onError(previous, error); });
    }
}

void EnginePlayer::NextTrack() {
    Lock lock(mutex_);
    AdvanceLocked(true);
}

void EnginePlayer::SetMode(PlayMode mode) {
    Lock lock(mutex_);
    if (mode >= ModeSingle && mode <= ModeShuffle) mode_ = mode;
}

EnginePlayer::PlayMode EnginePlayer::GetMode() {
    Lock lock(mutex_);
    return mode_;
}

int EnginePlayer::GetTrackSize() {
    Lock lock(mutex_);
    return decoder_ ? static_cast<int>(decoder_->info().duration_ms / 1000) : 0;
}

void EnginePlayer::SetTrackPosition(int position) {
    Lock lock(mutex_);
    if (decoder_) SeekLocked(position * 1000LL);
}

int EnginePlayer::GetTrackPosition() {
    Lock lock(mutex_);
    return static_cast<int>(position_ms_ / 1000);
}

void EnginePlayer::SetState(PlayState state) {
    Lock lock(mutex_);
    if (state == StatePlaying && !decoder_) {
        if (tracks_.empty()) return;
        const int index = std::max(current_, 0);
        std::string error;
        if (!OpenTrackLocked(index, 0, &error)) {
            Post([index, error](PlayerCb& cb) { cb.onError(index, error); });
            return;
        }
    }
    if (state == StatePaused && !decoder_) return;
    if (state >= StateStopped && state <= StatePaused) SetStateLocked(state);
}

EnginePlayer::PlayState EnginePlayer::GetState() {
    Lock lock(mutex_);
    return state_;
}

void EnginePlayer::TogglePlaying() {
    PlayState next;
    {
        Lock lock(mutex_);
        next = state_ == StatePlaying ? StatePaused : StatePlaying;
    }
    SetState(next);
}

void EnginePlayer::SetVolume(int volume) {
    Lock lock(mutex_);
    volume_ = std::clamp(volume, 0, kMaxVolume);
}

int EnginePlayer::GetVolume() {
    Lock lock(mutex_);
    return volume_;
}

int EnginePlayer::GetMaxVolume() { return kMaxVolume; }

void EnginePlayer::HandlePlayerStateChanged() {
    Lock lock(mutex_);
    ReadEnvironmentLocked();
    AnnounceLocked();
}

void EnginePlayer::EnqueueTrack(unsigned index) {
    Lock lock(mutex_);
    if (index < tracks_.size() && std::find(queue_.begin(), queue_.end(), index) == queue_.end()) {
        queue_.push_back(index);
    }
}

void EnginePlayer::DequeueTrack(unsigned index) {
    Lock lock(mutex_);
    queue_.erase(std::remove(queue_.begin(), queue_.end(), index), queue_.end());
}

int EnginePlayer::GetTrackEnqueueIndex(unsigned index) {
    Lock lock(mutex_);
    const auto at = std::find(queue_.begin(), queue_.end(), index);
    return at == queue_.end() ? -1 : static_cast<int>(at - queue_.begin());
}

EnginePlayer::Track EnginePlayer::GetPlayingTrack() {
    Lock lock(mutex_);
    return current_ >= 0 && current_ < static_cast<int>(tracks_.size()) ? tracks_[current_]
                                                                         : Track();
}

void EnginePlayer::setCb(PlayerCb* callback) {
    Lock lock(mutex_);
    callback_ = callback;
    // Once this returns the old callback is not running any more, so its owner may delete it;
    // from inside a callback there is nothing to wait for.
    if (std::this_thread::get_id() != thread_.get_id()) {
        delivered_.wait(lock, [this] { return !delivering_; });
    }
}

void EnginePlayer::setTempo(double tempo) {
    Lock lock(mutex_);
    if (!std::isfinite(tempo)) return;
    tempo_ = std::clamp(tempo, 0.5, 3.0);
    stretcher_.SetTempo(tempo_);
}

double EnginePlayer::getTempo() {
    Lock lock(mutex_);
    return tempo_;
}

void EnginePlayer::setSampleRateMultiplier(double multiplier) {
    Lock lock(mutex_);
    if (std::isfinite(multiplier)) rate_multiplier_ = std::clamp(multiplier, 0.5, 2.0);
}

double EnginePlayer::getSampleRateMultiplier() {
    Lock lock(mutex_);
    return rate_multiplier_;
}

void EnginePlayer::setEqualizerSettings(std::vector<EqualizerBand> settings) {
    Lock lock(mutex_);
    equalizer_.SetBands(settings);
}

std::map<std::string, std::string> EnginePlayer::getMetadata() {
    Lock lock(mutex_);
    return info_.metadata;
}

std::vector<EnginePlayer::Chapter> EnginePlayer::getChapters() {
    Lock lock(mutex_);
    return info_.chapters;
}

const std::vector<unsigned char>* EnginePlayer::getCover() {
    Lock lock(mutex_);
    return info_.cover.empty() ? nullptr : &info_.cover;
}

int EnginePlayer::openFile(std::string path) {
    std::string error;
    auto source = MediaSource::Open(path, &error);  // no shared state: outside the lock
    if (!source) return QV_FAILED;
    Lock lock(mutex_);
    info_ = source->info();
    return QV_OK;
}

// ---- Playback thread --------------------------------------------------------------------------

void EnginePlayer::Run() {
    Lock lock(mutex_);
    for (;;) {
        DeliverEvents(lock);
        if (quit_) return;
        if (state_ != StatePlaying || !decoder_) {
            wake_.wait(lock, [this] {
                return quit_ || !events_.empty() || (state_ == StatePlaying && decoder_);
            });
            continue;
        }
        if (pace_ > 0) {
            const auto due = pace_start_ + std::chrono::duration_cast<Clock::duration>(
                                               std::chrono::duration<double>(
                                                   frames_since_pace_start_ / (kOutputRate * pace_)));
            if (Clock::now() < due) {
                wake_.wait_until(lock, due, [this] {
                    return quit_ || !events_.empty() || state_ != StatePlaying;
                });
                continue;
            }
        }
        if (sink_stale_) {
            ReopenSink(lock);
            continue;
        }
        PlayOneFrame(lock);
    }
}

void EnginePlayer::DeliverEvents(Lock& lock) {
    while (!events_.empty()) {
        Event event = std::move(events_.front());
        events_.pop_front();
        PlayerCb* callback = callback_;
        if (!callback) continue;
        delivering_ = true;
        lock.unlock();
        event(*callback);
        lock.lock();
        delivering_ = false;
        delivered_.notify_all();
    }
}

void EnginePlayer::ReopenSink(Lock& lock) {
    const std::string target = sink_target_;
    sink_stale_ = false;
    lock.unlock();
    sink_.reset();  // a WAV file is complete at every write; closing it first lets it be reused
    std::string error;
    auto sink = MakeSink(target, &error);
    if (!sink) sink = MakeSink("", &error);
    lock.lock();
    if (!error.empty()) {
        const int index = current_;
        Post([index, error](PlayerCb& cb) { cb.onError(index, "output: " + error); });
    }
    sink_ = std::move(sink);
    RestartPaceLocked();
}

bool EnginePlayer::PlayOneFrame(Lock& lock) {
    const int rate = static_cast<int>(std::lround(kOutputRate / rate_multiplier_));
    if (!decoder_->Next(rate, &decoded_)) {
        AdvanceLocked(false);
        return false;
    }
    position_ms_ = decoder_->position_ms();
    const int second = static_cast<int>(position_ms_ / 1000);
    if (second != announced_second_) {
        announced_second_ = second;
        Post([second](PlayerCb& cb) { cb.onPositionChanged(second); });
    }
    if (!equalizer_.empty()) equalizer_.Process(decoded_.data(), decoded_.size() / kOutputChannels);
    stretcher_.Process(decoded_, &stretched_);
    const float level = static_cast<float>(volume_) / kMaxVolume;
    ToInt16(stretched_, level * level, &pcm_);
    const size_t frames = pcm_.size() / kOutputChannels;
    frames_since_pace_start_ += frames;

    lock.unlock();
    const bool written = sink_->Write(pcm_.data(), frames);
    lock.lock();
    if (!written) {
        const int index = current_;
        const std::string what = "can't write to " + sink_->Describe();
        Post([index, what](PlayerCb& cb) { cb.onError(index, what); });
        SetStateLocked(StatePaused);
    }
    return written;
}

}  // namespace audio_engine
