#include "common_utilities/audio/mp3_book.h"

#include <cstdlib>
#include <map>

#include "moorglass.h"

namespace quorvel {
namespace audio {

// Ordered by chapter number whatever the list's order; negative numbers are left out, and of two
// chapters with one number only the first plays.
std::vector<AudioBook::Track> Mp3Book::getBookPlaylist() const {
    std::map<int32_t, const Chapter*> by_number;
    for (const Chapter& chapter : chapters_) {
        if (chapter.no >= 0) by_number.emplace(chapter.no, &chapter);
    }
    std::vector<Track> playlist;
    for (const auto& [no, chapter] : by_number) {
        Track track;
        track.path = chapter->path;
        track.title = chapter->title;
        track.duration = static_cast<int32_t>(
            (static_cast<int64_t>(chapter->end_position) - chapter->start_position) / 1000);
        track.track_no = no;
        playlist.push_back(std::move(track));
    }
    return playlist;
}

// A chapter is a track, so the place within it does not matter.
int Mp3Book::getChapterIndex(int track, int) const {
    return IsTrackIndex(track) ? track : 0;
}

AudioBook::PlayPosition Mp3Book::getChapterPlayInfo(unsigned index) const {
    if (index >= chapters_.size()) return {};
    return {chapters_[index].start_position / 1000, static_cast<int32_t>(index)};
}

// A book of many files answers with its first.
std::string Mp3Book::getBookPath() const {
    return chapters_.empty() ? std::string() : chapters_.front().path;
}

bool Mp3Book::removeBookFromDevice() {
    for (const Chapter& chapter : chapters_)
        mg_unlink(chapter.path.c_str());
    return true;
}

int Mp3Book::getPositionInBook(int track, int position) const {
    if (!IsTrackIndex(track)) return 0;
    int before = 0;
    for (int i = 0; i < track; ++i)
        before += getChapterDuration(static_cast<unsigned>(i));
    return position + before;
}

// A place the chapters don't reach (their durations add up to less than the book's) is the
// start of the book.
AudioBook::PlayPosition Mp3Book::getPositionInTrack(int position) const {
    if (position < 0 || position >= duration_) return {};
    int rest = position;
    for (size_t i = 0; i < chapters_.size(); ++i) {
        const int length = getChapterDuration(static_cast<unsigned>(i));
        if (rest < length) return {rest, static_cast<int32_t>(i)};
        rest -= length;
    }
    return {};
}

std::string Mp3Book::positionToLocation(int track, int position) const {
    if (!IsTrackIndex(track)) return {};
    return MakeLocation(chapters_[static_cast<size_t>(track)].path, position);
}

// The file is the first chapter whose path is the text before the marker; the seconds stand
// between the marker and the closing character.
AudioBook::PlayPosition Mp3Book::locationToPosition(const std::string& location) const {
    const size_t marker = FindLocationMarker(location);
    if (chapters_.empty() || marker == std::string::npos) return {};
    const std::string path = location.substr(0, marker);
    for (size_t i = 0; i < chapters_.size(); ++i) {
        if (chapters_[i].path != path) continue;
        const size_t begin = marker + kLocationMarkerLength;
        const std::string seconds =
            location.size() > begin ? location.substr(begin, location.size() - begin - 1) : "";
        return {static_cast<int32_t>(std::strtol(seconds.c_str(), nullptr, 10)),
                static_cast<int32_t>(i)};
    }
    return {};
}

int64_t Mp3Book::getBookSize() const {
    int64_t size = 0;
    for (auto it = chapters_.rbegin(); it != chapters_.rend(); ++it)
        size += FileSize(it->path);
    return size;
}

}  // namespace audio
}  // namespace quorvel
