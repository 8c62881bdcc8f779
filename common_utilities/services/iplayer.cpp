#include "common_utilities/services/iplayer.h"

#include <dlfcn.h>

namespace {

using quorvel::utilities::IPlayer;
using CreatePlayerFn = IPlayer* (*)();
using DestroyPlayerFn = void (*)(IPlayer*);

// Set by the first createPlayer and kept for the process: the engine is never unloaded, since
// players and the callbacks it runs may outlive any one caller. A failed lookup leaves the handle
// set, so later calls go on with what was found and do not log again.
void* audio_engine_lib_handler = nullptr;
CreatePlayerFn create_player_fn = nullptr;
DestroyPlayerFn destroy_player_fn = nullptr;

}  // namespace

namespace quorvel {
namespace utilities {

IPlayer* createPlayer() {
    if (!audio_engine_lib_handler) {
        audio_engine_lib_handler = dlopen("/zelgrot/lib/libaudio-engine.so", RTLD_LAZY);
        QV_RETURN_IF(!audio_engine_lib_handler, nullptr, "Failed to dlopen libaudio-engine.so");
        create_player_fn = reinterpret_cast<CreatePlayerFn>(
            dlsym(audio_engine_lib_handler, "AudioEngine_CreatePlayer"));
        QV_RETURN_IF(!create_player_fn, nullptr, "Failed to dlsym AudioEngine_CreatePlayer");
        destroy_player_fn = reinterpret_cast<DestroyPlayerFn>(
            dlsym(audio_engine_lib_handler, "AudioEngine_DestroyPlayer"));
        QV_RETURN_IF(!destroy_player_fn, nullptr, "Failed to dlsym AudioEngine_DestroyPlayer");
    }
    // After a failed lookup the create function may be missing; the player then has no engine.
    return new Player(create_player_fn ? create_player_fn() : nullptr);
}

}  // namespace utilities
}  // namespace quorvel

Player::~Player() {
    if (engine && destroy_player_fn) {
        destroy_player_fn(engine);
    }
    engine = nullptr;
}

void Player::SetPlayList(const std::vector<Track>& tracks) {
    if (engine) engine->SetPlayList(tracks);
}

int Player::PlayTrack(int index, int position, bool play) {
    return engine ? engine->PlayTrack(index, position, play) : 0;
}

int Player::GetCurrentTrack() { return engine ? engine->GetCurrentTrack() : -1; }

void Player::PreviousTrack() {
    if (engine) engine->PreviousTrack();
}

void Player::NextTrack() {
    if (engine) engine->NextTrack();
}

void Player::SetMode(PlayMode mode) {
    if (engine) engine->SetMode(mode);
}

IPlayer::PlayMode Player::GetMode() { return engine ? engine->GetMode() : PlayMode(2); }

int Player::GetTrackSize() { return engine ? engine->GetTrackSize() : 0; }

void Player::SetTrackPosition(int position) {
    if (engine) engine->SetTrackPosition(position);
}

int Player::GetTrackPosition() { return engine ? engine->GetTrackPosition() : 0; }

void Player::SetState(PlayState state) {
    if (engine) engine->SetState(state);
}

IPlayer::PlayState Player::GetState() { return engine ? engine->GetState() : PlayState(0); }

void Player::TogglePlaying() {
    if (engine) engine->TogglePlaying();
}

void Player::SetVolume(int volume) {
    if (engine) engine->SetVolume(volume);
}

int Player::GetVolume() { return engine ? engine->GetVolume() : 0; }

int Player::GetMaxVolume() { return engine ? engine->GetMaxVolume() : 0; }

void Player::HandlePlayerStateChanged() {
    if (engine) engine->HandlePlayerStateChanged();
}

void Player::EnqueueTrack(unsigned index) {
    if (engine) engine->EnqueueTrack(index);
}

void Player::DequeueTrack(unsigned index) {
    if (engine) engine->DequeueTrack(index);
}

int Player::GetTrackEnqueueIndex(unsigned index) {
    return engine ? engine->GetTrackEnqueueIndex(index) : -1;
}

IPlayer::Track Player::GetPlayingTrack() { return engine ? engine->GetPlayingTrack() : Track(); }

void Player::setCb(quorvel::utilities::PlayerCb* callback) {
    if (engine) engine->setCb(callback);
}

void Player::setTempo(double tempo) {
    if (engine) engine->setTempo(tempo);
}

double Player::getTempo() { return engine ? engine->getTempo() : 1.0; }

void Player::setSampleRateMultiplier(double multiplier) {
    if (engine) engine->setSampleRateMultiplier(multiplier);
}

double Player::getSampleRateMultiplier() { return engine ? engine->getSampleRateMultiplier() : 1.0; }

void Player::setEqualizerSettings(std::vector<EqualizerBand> settings) {
    if (engine) engine->setEqualizerSettings(settings);
}

std::map<std::string, std::string> Player::getMetadata() {
    return engine ? engine->getMetadata() : std::map<std::string, std::string>();
}

std::vector<IPlayer::Chapter> Player::getChapters() {
    return engine ? engine->getChapters() : std::vector<Chapter>();
}

const std::vector<unsigned char>* Player::getCover() {
    return engine ? engine->getCover() : nullptr;
}

int Player::openFile(std::string path) { return engine ? engine->openFile(path) : -1; }
