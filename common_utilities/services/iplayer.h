// Playback through the audio engine plug-in, "/zelgrot/lib/libaudio-engine.so".
//
// The library does not play audio itself. IPlayer is the interface that applications (and the
// audiobook discovery) program against; createPlayer loads the engine on demand and wraps the
// object it makes in a Player, a proxy that forwards every call. Without an engine a Player still
// answers every call, with fixed defaults (GetMode 2, GetCurrentTrack -1, getTempo 1.0,
// openFile -1, empty lists, a blank Track), and never logs or throws.
//
// The engine is built separately and exports two C functions:
//
//     quorvel::utilities::IPlayer* AudioEngine_CreatePlayer(void);
//     void AudioEngine_DestroyPlayer(quorvel::utilities::IPlayer* player);
//
// Its object is called through IPlayer's virtual table, so the order of the operations below, and
// the layouts of Track and AudioBook::Chapter, are a binary contract between the two files: add
// nothing in between, reorder nothing.
//
// Units: positions and sizes of tracks are whole seconds, chapter positions milliseconds.
//
// Threads: a Player has no state and no lock of its own; what the engine does with threads is its
// matter. PlayerCb calls come from the engine's playback thread, never from inside a call of the
// application on the same player, so a callback may call back into the player.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common_utilities/audio/audio_book.h"
#include "common_utilities/common_utilities.h"
#include "common_utilities/media_library_manager.h"

namespace quorvel {
namespace utilities {

class PlayerCb;

class QV_EXPORT IPlayer {
public:
    using Track = MediaLibraryManager::Track;
    using Chapter = audio::AudioBook::Chapter;
    // One band of the equalizer: centre frequency in Hz, gain in dB (-12 to 12).
    using EqualizerBand = std::pair<int, int>;

    // What follows the end of a track.
    enum PlayMode : int {
        ModeSingle = 0,      // stop after the current track
        ModeRepeatOne = 1,   // play the current track again
        ModeSequential = 2,  // the next track of the list; stop after the last (the default)
        ModeRepeatAll = 3,   // the next track; the first again after the last
        ModeShuffle = 4,     // a random other track, endlessly
    };

    enum PlayState : int {
        StateStopped = 0,  // nothing plays; the position is kept
        StatePlaying = 1,
        StatePaused = 2,
    };

    virtual ~IPlayer() = default;

    // Replaces the list; playback stops and the enqueued tracks are forgotten.
    virtual void SetPlayList(const std::vector<Track>& tracks) = 0;
    // Opens track `index` of the list at `position` seconds; playing when `play`, else paused.
    // 0 on success, negative when the index is out of the list or the file does not open.
    virtual int PlayTrack(int index, int position, bool play) = 0;
    // Index in the list of the track open now, -1 before any.
    virtual int GetCurrentTrack() = 0;
    virtual void PreviousTrack() = 0;
    virtual void NextTrack() = 0;
    virtual void SetMode(PlayMode mode) = 0;
    virtual PlayMode GetMode() = 0;
    // Length of the open track, seconds.
    virtual int GetTrackSize() = 0;
    virtual void SetTrackPosition(int position) = 0;
    virtual int GetTrackPosition() = 0;
    virtual void SetState(PlayState state) = 0;
    virtual PlayState GetState() = 0;
    // Playing becomes paused; paused or stopped becomes playing.
    virtual void TogglePlaying() = 0;
    // 0 to GetMaxVolume().
    virtual void SetVolume(int volume) = 0;
    virtual int GetVolume() = 0;
    virtual int GetMaxVolume() = 0;
    // Tells the engine that the device's audio output changed (headphones, a new WAV target); it
    // reopens the output and reports its state to the callback again.
    virtual void HandlePlayerStateChanged() = 0;
    // A queue of list indexes that play next, before the mode's choice, in the order enqueued.
    virtual void EnqueueTrack(unsigned index) = 0;
    virtual void DequeueTrack(unsigned index) = 0;
    // Place of list index `index` in that queue, -1 if it is not there.
    virtual int GetTrackEnqueueIndex(unsigned index) = 0;
    // The list's record of the open track; a blank Track before any.
    virtual Track GetPlayingTrack() = 0;
    // The callback stays the caller's; null stops the calls.
    virtual void setCb(PlayerCb* callback) = 0;
    // Speed without a change of pitch, 0.5 to 3.0.
    virtual void setTempo(double tempo) = 0;
    virtual double getTempo() = 0;
    // Speed and pitch together, 0.5 to 2.0.
    virtual void setSampleRateMultiplier(double multiplier) = 0;
    virtual double getSampleRateMultiplier() = 0;
    // Replaces the bands; an empty list turns the equalizer off.
    virtual void setEqualizerSettings(std::vector<EqualizerBand> settings) = 0;
    // Tags of the open file, container and stream, keys in lower case ("title", "artist", ...).
    virtual std::map<std::string, std::string> getMetadata() = 0;
    // Chapters of the file last opened by openFile: no (from 1), title, start and end in
    // milliseconds; `path` is left empty.
    virtual std::vector<Chapter> getChapters() = 0;
    // The picture attached to the open file (JPEG or PNG bytes as stored), or null. It belongs to
    // the engine and lives until the next file is opened.
    virtual const std::vector<unsigned char>* getCover() = 0;
    // Opens a file (or "<archive>:#zip(<entry>)") for its duration, tags, chapters and cover,
    // without touching the list. 0 on success, -1 when it can't be read as audio.
    virtual int openFile(std::string path) = 0;
};

// What the engine tells the application, from its playback thread. Override what you need.
class QV_EXPORT PlayerCb {
public:
    virtual ~PlayerCb() = default;
    virtual void onStateChanged(IPlayer::PlayState /*state*/) {}
    // A new track of the list is open.
    virtual void onTrackChanged(int /*index*/) {}
    // About once a second while playing, and after a seek; seconds in the track.
    virtual void onPositionChanged(int /*position*/) {}
    // The end of the list was reached in a mode that stops there.
    virtual void onPlaylistEnd() {}
    // A track could not be played; playback moves on as the mode says or stops.
    virtual void onError(int /*index*/, const std::string& /*message*/) {}
};

// A new player with an engine of its own, owned by the caller; null when the engine plug-in
// can't be loaded. The first call must not race another (the loading state is not locked).
QV_EXPORT IPlayer* createPlayer();

}  // namespace utilities
}  // namespace quorvel

// The proxy createPlayer hands out. Its engine may be null: every call then answers the default.
class QV_EXPORT Player : public quorvel::utilities::IPlayer {
public:
    explicit Player(IPlayer* engine_player) : engine(engine_player) {}
    ~Player() override;
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

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
    IPlayer* engine;
};
