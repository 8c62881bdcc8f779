// The player binding: createPlayer against no engine plug-in, against plug-ins that lack one of
// the two entry points, and against a fake engine that journals every call it receives.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "common_utilities/services/iplayer.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::createPlayer;
using quorvel::utilities::IPlayer;

constexpr const char* kEnginePath = "/zelgrot/lib/libaudio-engine.so";

// Puts one of the fake engines (or nothing) where the device keeps the engine.
void InstallEngine(const char* fake_name) {
    std::filesystem::remove(kEnginePath);
    if (!fake_name) return;
    std::filesystem::copy_file(std::string(QV_FAKE_ENGINE_DIR) + "/" + fake_name, kEnginePath);
}

std::string ConditionLine(const std::string& condition, const std::string& message) {
    return qvtest::PidLine("Condition: \"" + condition + "\", return(\"nullptr\")]" + message);
}

template <typename Fn>
Fn Lookup(const char* name) {
    void* engine = dlopen(kEnginePath, RTLD_LAZY | RTLD_NOLOAD);
    return engine ? reinterpret_cast<Fn>(dlsym(engine, name)) : nullptr;
}

void ExpectDefaults(IPlayer& player) {
    player.SetPlayList({IPlayer::Track("/a.mp3", "A")});
    player.PreviousTrack();
    player.NextTrack();
    player.SetMode(IPlayer::ModeRepeatAll);
    player.SetTrackPosition(10);
    player.SetState(IPlayer::StatePlaying);
    player.TogglePlaying();
    player.SetVolume(5);
    player.HandlePlayerStateChanged();
    player.EnqueueTrack(0);
    player.DequeueTrack(0);
    player.setCb(nullptr);
    player.setTempo(2.0);
    player.setSampleRateMultiplier(2.0);
    player.setEqualizerSettings({{1000, 6}});
    EXPECT_EQ(player.PlayTrack(0, 0, true), 0);
    EXPECT_EQ(player.GetCurrentTrack(), -1);
    EXPECT_EQ(player.GetMode(), 2);
    EXPECT_EQ(player.GetTrackSize(), 0);
    EXPECT_EQ(player.GetTrackPosition(), 0);
    EXPECT_EQ(player.GetState(), 0);
    EXPECT_EQ(player.GetVolume(), 0);
    EXPECT_EQ(player.GetMaxVolume(), 0);
    EXPECT_EQ(player.GetTrackEnqueueIndex(0), -1);
    const IPlayer::Track blank = player.GetPlayingTrack();
    EXPECT_TRUE(blank.path.empty() && blank.title.empty());
    EXPECT_EQ(blank.id, 0);
    EXPECT_EQ(player.getTempo(), 1.0);
    EXPECT_EQ(player.getSampleRateMultiplier(), 1.0);
    EXPECT_TRUE(player.getMetadata().empty());
    EXPECT_TRUE(player.getChapters().empty());
    EXPECT_EQ(player.getCover(), nullptr);
    EXPECT_EQ(player.openFile("/mnt/ext1/a.m4b"), -1);
}

TEST(PlayerBinding, WithoutEngineEachAttemptLogsAndPlayersAnswerDefaults) {
    InstallEngine(nullptr);
    qvtest::LogCapture log;
    EXPECT_EQ(createPlayer(), nullptr);
    EXPECT_EQ(createPlayer(), nullptr);
    const std::string line = ConditionLine("!audio_engine_lib_handler",
                                           "Failed to dlopen libaudio-engine.so");
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{line, line}));

    log.Clear();
    {
        Player player(nullptr);
        ExpectDefaults(player);
    }  // and its destructor has nothing to destroy
    EXPECT_TRUE(log.Messages().empty()) << "a Player without engine never logs";
}

TEST(PlayerBinding, EngineWithoutDestroyIsReportedOnceAndThenServes) {
    InstallEngine("libfake-engine-nodestroy.so");
    qvtest::LogCapture log;
    EXPECT_EQ(createPlayer(), nullptr);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{ConditionLine(
                                  "!destroy_player_fn", "Failed to dlsym AudioEngine_DestroyPlayer")}));

    // The handle stays set: later calls do not look again and make players with engines, which
    // nobody can destroy.
    log.Clear();
    std::unique_ptr<IPlayer> player(createPlayer());
    ASSERT_NE(player, nullptr);
    EXPECT_EQ(player->GetTrackSize(), 103);
    player.reset();
    EXPECT_TRUE(log.Messages().empty());
}

TEST(PlayerBinding, EngineWithoutCreateGivesPlayersWithoutEngineAfterItsReport) {
    InstallEngine("libfake-engine-nocreate.so");
    qvtest::LogCapture log;
    EXPECT_EQ(createPlayer(), nullptr);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{ConditionLine(
                                  "!create_player_fn", "Failed to dlsym AudioEngine_CreatePlayer")}));

    log.Clear();
    std::unique_ptr<IPlayer> player(createPlayer());
    ASSERT_NE(player, nullptr);
    ExpectDefaults(*player);
    player.reset();
    EXPECT_TRUE(log.Messages().empty());
}

TEST(PlayerBinding, EachPlayerOwnsItsEngineAndReachesEveryOperation) {
    InstallEngine("libfake-engine.so");
    std::unique_ptr<IPlayer> first(createPlayer());
    ASSERT_NE(first, nullptr);
    auto last_created = Lookup<IPlayer* (*)()>("FakeEngine_LastCreated");
    auto journal = Lookup<const char* (*)(IPlayer*)>("FakeEngine_Journal");
    auto destroyed = Lookup<int (*)()>("FakeEngine_Destroyed");
    ASSERT_TRUE(last_created && journal && destroyed);
    IPlayer* first_engine = last_created();
    std::unique_ptr<IPlayer> second(createPlayer());
    IPlayer* second_engine = last_created();
    ASSERT_NE(first_engine, second_engine);

    EXPECT_EQ(first->PlayTrack(2, 30, false), 101);
    EXPECT_EQ(first->GetCurrentTrack(), 102);
    EXPECT_EQ(first->GetMode(), IPlayer::ModeShuffle);
    EXPECT_EQ(first->GetTrackSize(), 103);
    EXPECT_EQ(first->GetTrackPosition(), 104);
    EXPECT_EQ(first->GetState(), IPlayer::StatePaused);
    EXPECT_EQ(first->GetVolume(), 105);
    EXPECT_EQ(first->GetMaxVolume(), 106);
    EXPECT_EQ(first->GetTrackEnqueueIndex(4), 1004);
    EXPECT_EQ(first->GetPlayingTrack().path, "/fake/track.mp3");
    EXPECT_EQ(first->getTempo(), 1.25);
    EXPECT_EQ(first->getSampleRateMultiplier(), 0.75);
    EXPECT_EQ(first->getMetadata().at("title"), "Fake");
    ASSERT_EQ(first->getChapters().size(), 1u);
    EXPECT_EQ(first->getChapters()[0].end_position, 5000);
    ASSERT_NE(first->getCover(), nullptr);
    EXPECT_EQ(first->getCover()->size(), 2u);
    EXPECT_EQ(first->openFile("/mnt/ext1/a.m4b"), 107);

    struct Callback : quorvel::utilities::PlayerCb {} callback;
    first->SetPlayList({IPlayer::Track("/a.mp3", "A"), IPlayer::Track("/b.mp3", "B")});
    first->PreviousTrack();
    first->NextTrack();
    first->SetMode(IPlayer::ModeRepeatOne);
    first->SetTrackPosition(42);
    first->SetState(IPlayer::StatePlaying);
    first->TogglePlaying();
    first->SetVolume(7);
    first->HandlePlayerStateChanged();
    first->EnqueueTrack(3);
    first->DequeueTrack(3);
    first->setCb(&callback);
    first->setTempo(1.5);
    first->setSampleRateMultiplier(0.5);
    first->setEqualizerSettings({{60, -3}, {8000, 4}});
    EXPECT_STREQ(journal(first_engine),
                 "PlayTrack(2,30,false);openFile(/mnt/ext1/a.m4b);SetPlayList(2);PreviousTrack;"
                 "NextTrack;SetMode(1);SetTrackPosition(42);SetState(1);TogglePlaying;"
                 "SetVolume(7);HandlePlayerStateChanged;Enqueue(3);Dequeue(3);setCb(set);"
                 "setTempo(1.500000);setSampleRateMultiplier(0.500000);"
                 "setEqualizerSettings(60:-3 8000:4 );");
    EXPECT_STREQ(journal(second_engine), "");

    first.reset();
    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(second->GetVolume(), 105) << "the other player's engine is still there";
    second.reset();
    EXPECT_EQ(destroyed(), 2);
}

}  // namespace
