// qvtool play: an audiobook through the audio engine, as the audiobook application plays it
// (createPlayer, openFile, the book's playlist, PlayerCb), printing what the engine reports.

#include <stdlib.h>
#include <sys/stat.h>

#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "audiobook_lookup.h"
#include "cli.h"
#include "common_utilities/services/iplayer.h"
#include "progress.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::audio::AudioBook;
using quorvel::utilities::IPlayer;

constexpr int kDefaultExcerptSeconds = 10;

struct PlayOptions {
    long long book_id = 0;
    std::string wav;  // empty: the null sink
    std::optional<int32_t> from;
    int seconds = kDefaultExcerptSeconds;
    bool realtime = false;
};

// Prints the engine's reports as they come (on the engine's thread) and stops the player once the
// excerpt is played; a report of the stop or of the end wakes the command.
class Reporter : public quorvel::utilities::PlayerCb {
public:
    Reporter(IPlayer& player, const AudioBook& book, int until)
        : player_(player), book_(book), until_(until) {}

    void onStateChanged(IPlayer::PlayState state) override {
        std::cout << "  state: " << StateName(state) << "\n";
        // At the end of the book the report of the end follows the stop: wait for that one.
        if (state == IPlayer::StateStopped && stop_requested_) Finish();
    }
    void onTrackChanged(int index) override {
        std::lock_guard<std::mutex> lock(mutex_);
        track_ = index;
        std::cout << "  track " << index << ": " << player_.GetPlayingTrack().path << "\n";
    }
    void onPositionChanged(int position) override {
        int in_book;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            in_book = book_.getPositionInBook(track_, position);
        }
        const auto chapter = book_.getChapter(book_.getChapterIndex(track_, position));
        std::cout << "  at " << Clock(in_book) << " in the book, " << Clock(position)
                  << " in the track, chapter " << chapter.no << " \"" << chapter.title << "\"\n";
        if (in_book >= until_ && !stop_requested_) {
            stop_requested_ = true;
            player_.SetState(IPlayer::StateStopped);
        }
    }
    void onPlaylistEnd() override {
        std::cout << "  end of the book\n";
        Finish();
    }
    void onError(int index, const std::string& message) override {
        std::cout << "  error in track " << index << ": " << message << "\n";
    }

    void WaitForTheEnd() {
        std::unique_lock<std::mutex> lock(mutex_);
        finished_.wait(lock, [this] { return done_; });
    }

    static const char* StateName(int state) {
        switch (state) {
            case IPlayer::StateStopped: return "stopped";
            case IPlayer::StatePlaying: return "playing";
            case IPlayer::StatePaused: return "paused";
        }
        return "?";
    }

private:
    void Finish() {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
        finished_.notify_all();
    }

    IPlayer& player_;
    const AudioBook& book_;
    const int until_;
    std::mutex mutex_;
    std::condition_variable finished_;
    int track_ = 0;
    bool done_ = false;
    bool stop_requested_ = false;  // the engine's thread only
};

PlayOptions ParseOptions(Args& args) {
    PlayOptions options;
    options.book_id = ParseId(args, "book");
    options.wav = args.Option("--to").value_or("");
    if (auto from = args.Option("--from")) options.from = ParseSeconds(*from, "--from");
    if (auto seconds = args.Option("--seconds")) {
        options.seconds = ParseSeconds(*seconds, "--seconds");
        if (options.seconds <= 0) throw Failure(kUsage, "--seconds must be above 0");
    }
    options.realtime = args.Flag("--realtime");
    args.Done();
    return options;
}

// The engine reads its output and pace from the environment when it is made.
void ChooseOutput(const PlayOptions& options) {
    if (options.wav.empty()) {
        unsetenv("QV_AUDIO_OUT");
    } else {
        setenv("QV_AUDIO_OUT", options.wav.c_str(), 1);
    }
    const bool fast = !options.wav.empty() && !options.realtime;
    setenv("QV_AUDIO_PACE", fast ? "0" : "1", 1);
}

void PrintWhatTheEngineReads(IPlayer& player, const std::string& path) {
    std::cout << "The engine reads " << path << ":\n";
    Table tags({"TAG", "VALUE"});
    for (const auto& [key, value] : player.getMetadata()) tags.AddRow({key, value});
    tags.Print(std::cout);
    const auto chapters = player.getChapters();
    if (!chapters.empty()) {
        Table table({"NO", "TITLE", "START", "END"});
        for (const auto& chapter : chapters) {
            table.AddRow({std::to_string(chapter.no), chapter.title,
                          Clock(chapter.start_position / 1000), Clock(chapter.end_position / 1000)});
        }
        std::cout << "Chapters in the file:\n";
        table.Print(std::cout);
    }
    const auto* cover = player.getCover();
    std::cout << "Cover: " << (cover ? FormatBytes(static_cast<double>(cover->size())) : "none")
              << "\n";
}

// Where to start: --from, else where the book was left, else its start.
int StartInBook(const PlayOptions& options, const AudioBook& book) {
    if (options.from) return *options.from;
    const std::string saved = book.getState().read_position;
    if (saved.empty()) return 0;
    const auto place = book.locationToPosition(saved);
    return book.getPositionInBook(place.track, place.position);
}

int RunPlay(Args& args) {
    const PlayOptions options = ParseOptions(args);
    quorvel::audio::AudioBooksManager library;
    BookPtr book = LoadBook(library, options.book_id);
    const auto tracks = book->getBookPlaylist();
    if (tracks.empty()) throw Failure(kFailed, "book " + std::to_string(options.book_id) +
                                                   " has no chapters to play");
    ChooseOutput(options);
    std::unique_ptr<IPlayer> player(quorvel::utilities::createPlayer());
    if (!player) throw Failure(kUnavailable, "no audio engine (/zelgrot/lib/libaudio-engine.so)");
    if (player->openFile(tracks[0].path) != 0)
        throw Failure(kFailed, "the engine can't open " + tracks[0].path);
    PrintWhatTheEngineReads(*player, tracks[0].path);

    const int start = StartInBook(options, *book);
    const auto place = book->getPositionInTrack(start);
    const int until = book->getPositionInBook(place.track, place.position) + options.seconds;
    Reporter reporter(*player, *book, until);
    player->setCb(&reporter);
    player->SetPlayList(tracks);
    std::cout << "\nPlaying \"" << book->getTitle() << "\" from " << Clock(start) << " for "
              << options.seconds << " s to " << (options.wav.empty() ? "the null sink" : options.wav)
              << ":\n";
    if (player->PlayTrack(place.track, place.position, true) != 0) {
        player->setCb(nullptr);
        throw Failure(kFailed, "the engine can't play " + tracks[place.track].path);
    }
    reporter.WaitForTheEnd();
    player->setCb(nullptr);

    std::cout << "\nThe engine reports: state " << Reporter::StateName(player->GetState())
              << ", track " << player->GetCurrentTrack() << " of " << tracks.size() << ", at "
              << Clock(player->GetTrackPosition()) << " of " << Clock(player->GetTrackSize())
              << ", volume " << player->GetVolume() << "/" << player->GetMaxVolume() << "\n";
    if (!options.wav.empty()) {
        struct stat info {};
        if (::stat(options.wav.c_str(), &info) != 0)
            throw Failure(kFailed, "no sound was written to " + options.wav);
        std::cout << "Wrote " << options.wav << " (" << FormatBytes(static_cast<double>(info.st_size))
                  << ", 16-bit stereo at 44.1 kHz)\n";
    }
    return kOk;
}

const bool registered = Register(
    {"play", "play an audiobook through the audio engine",
     "usage: qvtool play BOOK-ID [--to WAV] [--from POSITION] [--seconds N] [--realtime]\n"
     "Plays an excerpt of book BOOK-ID the way the audiobook application does: the engine\n"
     "(/zelgrot/lib/libaudio-engine.so) first opens the book's first file and tells its tags,\n"
     "chapters and cover; then the book's playlist plays from POSITION (seconds or h:mm:ss in\n"
     "the book; by default where the book was left, or its start) for N seconds (10), with the\n"
     "engine's reports as they come. --to writes the sound to a WAV file, as fast as it decodes\n"
     "unless --realtime; without it the sound goes to the null sink at the speed of a\n"
     "loudspeaker. Exit codes: 3 no such book, 4 no audio engine, 1 the engine can't play it.\n",
     RunPlay});

}  // namespace
}  // namespace qvtool
