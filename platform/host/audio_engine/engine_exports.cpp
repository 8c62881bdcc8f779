// The two entry points the library looks up in "/zelgrot/lib/libaudio-engine.so".

extern "C" {
#include <libavutil/log.h>
}

#include <cstdlib>
#include <mutex>
#include <new>

#include "engine_player.h"

#define AUDIO_ENGINE_EXPORT extern "C" __attribute__((visibility("default")))

AUDIO_ENGINE_EXPORT quorvel::utilities::IPlayer* AudioEngine_CreatePlayer() {
    static std::once_flag quiet;
    // FFmpeg's own warnings about damaged files would land in the application's terminal;
    // QV_AUDIO_LOG=1 lets them through.
    std::call_once(quiet, [] {
        const char* wanted = std::getenv("QV_AUDIO_LOG");
        av_log_set_level(wanted && *wanted == '1' ? AV_LOG_WARNING : AV_LOG_QUIET);
    });
    try {
        return new audio_engine::EnginePlayer();
    } catch (const std::exception&) {  // no thread or no memory: no engine
        return nullptr;
    }
}

AUDIO_ENGINE_EXPORT void AudioEngine_DestroyPlayer(quorvel::utilities::IPlayer* player) {
    delete player;
}
