// A stand-in for the audio engine plug-in that answers every call with a value of its own and
// writes each call into a journal, so that tests see which engine operation a Player reached.
// Built three times: whole, without AudioEngine_DestroyPlayer (FAKE_ENGINE_NO_DESTROY) and
// without AudioEngine_CreatePlayer (FAKE_ENGINE_NO_CREATE).

#include <string>

#include "common_utilities/services/iplayer.h"

namespace {

using quorvel::utilities::IPlayer;

int destroyed = 0;
IPlayer* last_created = nullptr;

class FakeEngine : public IPlayer {
public:
    std::string journal;

    void SetPlayList(const std::vector<Track>& tracks) override {
        Note("SetPlayList(" + std::to_string(tracks.size()) + ")");
    }
    int PlayTrack(int index, int position, bool play) override {
        Note("PlayTrack(" + std::to_string(index) + "," + std::to_string(position) + "," +
             (play ? "true" : "false") + ")");
        return 101;
    }
    int GetCurrentTrack() override { return 102; }
    void PreviousTrack() override { Note("PreviousTrack"); }
    void NextTrack() override { Note("NextTrack"); }
    void SetMode(PlayMode mode) override { Note("SetMode(" + std::to_string(mode) + ")"); }
    PlayMode GetMode() override { return ModeShuffle; }
    int GetTrackSize() override { return 103; }
    void SetTrackPosition(int position) override {
        Note("SetTrackPosition(" + std::to_string(position) + ")");
    }
    int GetTrackPosition() override { return 104; }
    void SetState(PlayState state) override { Note("SetState(" + std::to_string(state) + ")"); }
    PlayState GetState() override { return StatePaused; }
    void TogglePlaying() override { Note("TogglePlaying"); }
    void SetVolume(int volume) override { Note("SetVolume(" + std::to_string(volume) + ")"); }
    int GetVolume() override { return 105; }
    int GetMaxVolume() override { return 106; }
    void HandlePlayerStateChanged() override { Note("HandlePlayerStateChanged"); }
    void EnqueueTrack(unsigned index) override { Note("Enqueue(" + std::to_string(index) + ")"); }
    void DequeueTrack(unsigned index) override { Note("Dequeue(" + std::to_string(index) + ")"); }
    int GetTrackEnqueueIndex(unsigned index) override { return static_cast<int>(index) + 1000; }
    Track GetPlayingTrack() override { return Track("/fake/track.mp3", "Fake"); }
    void setCb(quorvel::utilities::PlayerCb* callback) override {
        Note(callback ? "setCb(set)" : "setCb(null)");
    }
    void setTempo(double tempo) override { Note("setTempo(" + std::to_string(tempo) + ")"); }
    double getTempo() override { return 1.25; }
    void setSampleRateMultiplier(double multiplier) override {
        Note("setSampleRateMultiplier(" + std::to_string(multiplier) + ")");
    }
    double getSampleRateMultiplier() override { return 0.75; }
    void setEqualizerSettings(std::vector<EqualizerBand> settings) override {
        std::string text;
        for (const auto& band : settings)
            text += std::to_string(band.first) + ":" + std::to_string(band.second) + " ";
        Note("setEqualizerSettings(" + text + ")");
    }
    std::map<std::string, std::string> getMetadata() override { return {{"title", "Fake"}}; }
    std::vector<Chapter> getChapters() override {
        Chapter chapter;
        chapter.no = 1;
        chapter.title = "Only";
        chapter.end_position = 5000;
        return {chapter};
    }
    const std::vector<unsigned char>* getCover() override { return &cover_; }
    int openFile(std::string path) override {
        Note("openFile(" + path + ")");
        return 107;
    }

private:
    void Note(const std::string& call) { journal += call + ";"; }
    std::vector<unsigned char> cover_{0xFF, 0xD8};
};

}  // namespace

#define FAKE_EXPORT extern "C" __attribute__((visibility("default")))

#ifndef FAKE_ENGINE_NO_CREATE
FAKE_EXPORT IPlayer* AudioEngine_CreatePlayer() {
#ifdef FAKE_ENGINE_NO_DESTROY
    // Nobody can destroy what this variant makes: hand out one that lives for good.
    static FakeEngine only;
    last_created = &only;
#else
    last_created = new FakeEngine();
#endif
    return last_created;
}
#endif

#ifndef FAKE_ENGINE_NO_DESTROY
FAKE_EXPORT void AudioEngine_DestroyPlayer(IPlayer* player) {
    ++destroyed;
    delete player;
}
#endif

// For the tests, looked up with dlsym.
FAKE_EXPORT int FakeEngine_Destroyed() { return destroyed; }
FAKE_EXPORT IPlayer* FakeEngine_LastCreated() { return last_created; }
FAKE_EXPORT const char* FakeEngine_Journal(IPlayer* engine) {
    return static_cast<FakeEngine*>(engine)->journal.c_str();
}
