// The host audio engine behind createPlayer, on files made at test time: what it reads of a file
// (a plain one or a zip member), playback through the list with its reports on the engine's own
// thread, the clock at the speed of a loudspeaker, and WAV files of the right length.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common_utilities/services/iplayer.h"
#include "media_files.h"

namespace {

using quorvel::utilities::IPlayer;
using namespace std::chrono_literals;

// Records what the engine reports, as "track:1", "pos:3", "state:1", "end", "error:2".
class Recorder : public quorvel::utilities::PlayerCb {
public:
    std::function<void(int)> on_position;  // runs on the engine's thread

    void onStateChanged(IPlayer::PlayState state) override {
        Add("state:" + std::to_string(state));
    }
    void onTrackChanged(int index) override { Add("track:" + std::to_string(index)); }
    void onPositionChanged(int position) override {
        Add("pos:" + std::to_string(position));
        if (on_position) on_position(position);
    }
    void onPlaylistEnd() override { Add("end"); }
    void onError(int index, const std::string&) override { Add("error:" + std::to_string(index)); }

    bool WaitFor(const std::string& event, std::chrono::milliseconds timeout = 30s) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::find(events_.begin(), events_.end(), event) != events_.end();
        });
    }
    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    // The events of one kind ("track:"), in order.
    std::vector<std::string> Only(const std::string& prefix) {
        std::vector<std::string> picked;
        for (const auto& event : Events())
            if (event.rfind(prefix, 0) == 0) picked.push_back(event);
        return picked;
    }
    std::vector<std::thread::id> Threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
    }

private:
    void Add(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
        if (std::find(threads_.begin(), threads_.end(), std::this_thread::get_id()) ==
            threads_.end())
            threads_.push_back(std::this_thread::get_id());
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    std::vector<std::thread::id> threads_;
};

const std::string kDir = "/tmp/media";
const std::string kBook = kDir + "/book.m4b";
const std::string kSong = kDir + "/song.mp3";
const std::string kCover = kDir + "/cover.jpg";
const std::string kArchive = kDir + "/songs.zip";
const std::string kZipSong = kArchive + ":#zip(song.mp3)";

class PlayerEngine : public ::testing::Test {
protected:
    // Fast output unless a test wants the pace of a loudspeaker; the null sink.
    void SetUp() override {
        std::filesystem::create_directories(kDir);
        setenv("QV_AUDIO_PACE", "0", 1);
        unsetenv("QV_AUDIO_OUT");
    }
    void MakePlayer() {
        player_.reset(quorvel::utilities::createPlayer());
        ASSERT_NE(player_, nullptr);
        player_->setCb(&recorder_);
    }
    void TearDown() override {
        if (player_) player_->setCb(nullptr);
        player_.reset();
    }
    static IPlayer::Track TrackOf(const std::string& path) { return IPlayer::Track(path.c_str(), ""); }

    Recorder recorder_;
    std::unique_ptr<IPlayer> player_;
};

std::vector<unsigned char> Bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST_F(PlayerEngine, OpensFilesAndZipMembersForTagsChaptersAndCover) {
    qvtest::MakeM4b(kBook, 5, "Book", "Writer", {{0, 2000, "One"}, {2000, 5000, "Two"}});
    qvtest::MakeJpeg(kCover);
    qvtest::MakeMp3(kSong, 3, "Song", "Singer", kCover);
    qvtest::MakeZip(kArchive, {kSong});
    std::ofstream(kDir + "/notes.mp3") << "not audio at all\n";
    MakePlayer();

    ASSERT_EQ(player_->openFile(kBook), 0);
    const auto chapters = player_->getChapters();
    ASSERT_EQ(chapters.size(), 2u);
    EXPECT_EQ(chapters[0].no, 1);
    EXPECT_EQ(chapters[0].title, "One");
    EXPECT_EQ(chapters[0].start_position, 0);
    EXPECT_EQ(chapters[0].end_position, 2000);
    EXPECT_EQ(chapters[1].no, 2);
    EXPECT_EQ(chapters[1].start_position, 2000);
    EXPECT_EQ(chapters[1].end_position, 5000);
    EXPECT_TRUE(chapters[1].path.empty());
    EXPECT_EQ(player_->getMetadata()["title"], "Book");
    EXPECT_EQ(player_->getMetadata()["artist"], "Writer");
    EXPECT_EQ(player_->getCover(), nullptr);

    ASSERT_EQ(player_->openFile(kSong), 0);
    EXPECT_TRUE(player_->getChapters().empty());
    EXPECT_EQ(player_->getMetadata()["title"], "Song");
    ASSERT_NE(player_->getCover(), nullptr);
    EXPECT_EQ(*player_->getCover(), Bytes(kCover));

    // A member is found whatever the case of its name, and read like the file itself.
    ASSERT_EQ(player_->openFile(kArchive + ":#zip(SONG.MP3)"), 0);
    EXPECT_EQ(player_->getMetadata()["artist"], "Singer");

    for (const std::string& bad :
         {kDir + "/missing.mp3", kDir + "/notes.mp3", kArchive + ":#zip(other.mp3)",
          kArchive + ":#zip(", kDir + "/missing.zip:#zip(song.mp3)"}) {
        EXPECT_EQ(player_->openFile(bad), -1) << bad;
    }
    EXPECT_EQ(player_->getMetadata()["artist"], "Singer") << "a failed open keeps what was read";

    // Lengths are those of the track the list opened.
    player_->SetPlayList({TrackOf(kBook), TrackOf(kZipSong)});
    EXPECT_EQ(player_->GetTrackSize(), 0);
    ASSERT_EQ(player_->PlayTrack(1, 0, false), 0);
    EXPECT_EQ(player_->GetTrackSize(), 3);
    EXPECT_EQ(player_->GetPlayingTrack().path, kZipSong);
    ASSERT_EQ(player_->PlayTrack(0, 0, false), 0);
    EXPECT_EQ(player_->GetTrackSize(), 5);
    EXPECT_EQ(player_->getChapters().size(), 2u);
    EXPECT_EQ(player_->PlayTrack(2, 0, true), -2);
    EXPECT_EQ(player_->GetCurrentTrack(), 0);
}

TEST_F(PlayerEngine, PlaysThroughTheListAndReportsFromItsOwnThread) {
    qvtest::MakeMp3(kSong, 3, "Song", "Singer");
    qvtest::MakeZip(kArchive, {kSong});
    MakePlayer();
    player_->SetPlayList({TrackOf(kSong), TrackOf(kDir + "/gone.mp3"), TrackOf(kZipSong)});
    recorder_.Clear();

    ASSERT_EQ(player_->PlayTrack(0, 1, true), 0);
    ASSERT_TRUE(recorder_.WaitFor("end"));
    const auto events = recorder_.Events();
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 3),
              (std::vector<std::string>{"track:0", "pos:1", "state:1"}));
    EXPECT_EQ(recorder_.Only("track:"), (std::vector<std::string>{"track:0", "track:2"}));
    EXPECT_EQ(recorder_.Only("error:"), (std::vector<std::string>{"error:1"}));
    EXPECT_EQ(recorder_.Only("state:"), (std::vector<std::string>{"state:1", "state:0"}));
    // Every second of the first from 1, of the member from 0, and the rewind at the end.
    EXPECT_EQ(recorder_.Only("pos:"), (std::vector<std::string>{"pos:1", "pos:2", "pos:3", "pos:0",
                                                                "pos:1", "pos:2", "pos:3", "pos:0"}));
    EXPECT_EQ(std::vector<std::string>(events.end() - 3, events.end()),
              (std::vector<std::string>{"state:0", "pos:0", "end"}))
        << "at the end the last track is rewound";

    const auto threads = recorder_.Threads();
    ASSERT_EQ(threads.size(), 1u);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(player_->GetState(), IPlayer::StateStopped);
    EXPECT_EQ(player_->GetCurrentTrack(), 2);
    EXPECT_EQ(player_->GetTrackPosition(), 0);
}

TEST_F(PlayerEngine, KeepsTheClockOfALoudspeakerThroughPauseAndSeek) {
    qvtest::MakeM4b(kBook, 5, "Book", "Writer", {});
    setenv("QV_AUDIO_PACE", "1", 1);
    MakePlayer();
    player_->SetPlayList({TrackOf(kBook)});

    ASSERT_EQ(player_->PlayTrack(0, 0, false), 0);
    EXPECT_EQ(player_->GetState(), IPlayer::StatePaused);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(player_->GetTrackPosition(), 0) << "a paused player's clock stands";

    player_->SetTrackPosition(3);
    EXPECT_EQ(player_->GetTrackPosition(), 3);
    const auto started = std::chrono::steady_clock::now();
    player_->TogglePlaying();
    EXPECT_EQ(player_->GetState(), IPlayer::StatePlaying);
    ASSERT_TRUE(recorder_.WaitFor("pos:4"));
    player_->SetState(IPlayer::StatePaused);
    EXPECT_EQ(player_->GetTrackPosition(), 4);
    player_->SetState(IPlayer::StatePlaying);
    ASSERT_TRUE(recorder_.WaitFor("end"));
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_GE(took, 1800ms) << "two seconds of sound take two seconds";
    EXPECT_LT(took, 4s);
    EXPECT_EQ(player_->GetState(), IPlayer::StateStopped);
}

TEST_F(PlayerEngine, WritesWavFilesAsLongAsWhatWasPlayed) {
    qvtest::MakeM4b(kBook, 5, "Book", "Writer", {});
    const auto play_to = [&](const std::string& wav, int from, const std::string& until) {
        setenv("QV_AUDIO_OUT", wav.c_str(), 1);
        player_->HandlePlayerStateChanged();
        recorder_.Clear();
        ASSERT_EQ(player_->PlayTrack(0, from, true), 0);
        ASSERT_TRUE(recorder_.WaitFor(until)) << wav;
    };
    MakePlayer();
    player_->SetPlayList({TrackOf(kBook)});

    play_to("/tmp/from1.wav", 1, "end");
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/from1.wav"), 4.0, 0.06);

    player_->setSampleRateMultiplier(2.0);
    play_to("/tmp/double-rate.wav", 0, "end");
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/double-rate.wav"), 2.5, 0.06);

    player_->setSampleRateMultiplier(1.0);
    player_->setTempo(2.0);
    player_->setEqualizerSettings({{100, -6}, {3000, 6}});
    play_to("/tmp/double-tempo.wav", 1, "end");
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/double-tempo.wav"), 2.0, 0.1);

    // A callback that stops the player stops the sound before another frame is written.
    player_->setTempo(1.0);
    recorder_.on_position = [&](int second) {
        if (second >= 3) player_->SetState(IPlayer::StateStopped);
    };
    play_to("/tmp/excerpt.wav", 1, "state:0");
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/excerpt.wav"), 2.0, 0.06);
    EXPECT_EQ(player_->GetTrackPosition(), 3);
}

TEST_F(PlayerEngine, QueueAndModeChooseWhatFollows) {
    std::vector<IPlayer::Track> tracks;
    for (const char* name : {"a", "b", "c"}) {
        qvtest::MakeMp3(kDir + "/" + name + ".mp3", 1, name, "Singer");
        tracks.push_back(TrackOf(kDir + "/" + name + ".mp3"));
    }
    MakePlayer();
    player_->SetPlayList(tracks);

    player_->EnqueueTrack(2);
    player_->EnqueueTrack(2);
    player_->EnqueueTrack(9);
    player_->EnqueueTrack(1);
    EXPECT_EQ(player_->GetTrackEnqueueIndex(2), 0);
    EXPECT_EQ(player_->GetTrackEnqueueIndex(1), 1);
    EXPECT_EQ(player_->GetTrackEnqueueIndex(9), -1);
    player_->DequeueTrack(1);
    EXPECT_EQ(player_->GetTrackEnqueueIndex(1), -1);
    recorder_.Clear();
    ASSERT_EQ(player_->PlayTrack(0, 0, true), 0);
    ASSERT_TRUE(recorder_.WaitFor("end"));
    EXPECT_EQ(recorder_.Only("track:"), (std::vector<std::string>{"track:0", "track:2"}))
        << "the queue first, then the list from there on";

    player_->SetMode(IPlayer::ModeSingle);
    recorder_.Clear();
    ASSERT_EQ(player_->PlayTrack(1, 0, true), 0);
    ASSERT_TRUE(recorder_.WaitFor("end"));
    EXPECT_EQ(recorder_.Only("track:"), (std::vector<std::string>{"track:1"}));

    // A user's "next" and "previous" wrap around in repeat-all.
    player_->SetMode(IPlayer::ModeRepeatAll);
    EXPECT_EQ(player_->GetMode(), IPlayer::ModeRepeatAll);
    ASSERT_EQ(player_->PlayTrack(2, 0, false), 0);
    player_->NextTrack();
    EXPECT_EQ(player_->GetCurrentTrack(), 0);
    player_->PreviousTrack();
    EXPECT_EQ(player_->GetCurrentTrack(), 2);
    EXPECT_EQ(player_->GetPlayingTrack().path, tracks[2].path);

    player_->SetVolume(150);
    EXPECT_EQ(player_->GetVolume(), player_->GetMaxVolume());
    player_->SetPlayList({});
    EXPECT_EQ(player_->GetCurrentTrack(), -1);
    EXPECT_EQ(player_->GetState(), IPlayer::StateStopped);
}

}  // namespace
