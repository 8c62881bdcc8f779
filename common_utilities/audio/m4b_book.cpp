#include "common_utilities/audio/m4b_book.h"

#include <cstdlib>

#include "moorglass.h"

namespace quorvel {
namespace audio {

std::vector<AudioBook::Track> M4bBook::getBookPlaylist() const {
    if (chapters_.empty()) return {};
    const Chapter& first = chapters_.front();
    Track track;
    track.path = first.path;
    track.title = first.title;
    track.track_no = first.no;
    track.duration = duration_;
    return {track};
}

// Chapters are walked in list order. A place in a gap between two chapters belongs to the next
// one; a place past the last chapter answers the number of chapters, one past the last index.
int M4bBook::getChapterIndex(int track, int position) const {
    if (track != 0) return 0;
    int index = 0;
    for (const Chapter& chapter : chapters_) {
        if (position < chapter.end_position / 1000) {
            if (position >= chapter.start_position / 1000) break;
            continue;
        }
        ++index;
    }
    return index;
}

AudioBook::PlayPosition M4bBook::getChapterPlayInfo(unsigned index) const {
    if (index >= chapters_.size()) return {};
    return {chapters_[index].start_position / 1000, 0};
}

std::string M4bBook::getBookPath() const {
    return chapters_.empty() ? std::string() : chapters_.front().path;
}

bool M4bBook::removeBookFromDevice() {
    if (!chapters_.empty()) mg_unlink(chapters_.front().path.c_str());
    return true;
}

int M4bBook::getPositionInBook(int track, int position) const {
    return track == 0 && !chapters_.empty() ? position : 0;
}

AudioBook::PlayPosition M4bBook::getPositionInTrack(int position) const {
    if (position < 0 || position >= duration_) return {};
    return {position, 0};
}

std::string M4bBook::positionToLocation(int track, int position) const {
    if (track != 0 || chapters_.empty()) return {};
    return MakeLocation(chapters_.front().path, position);
}

// The book has one file, so the path before the marker is not compared.
AudioBook::PlayPosition M4bBook::locationToPosition(const std::string& location) const {
    const size_t marker = FindLocationMarker(location);
    if (chapters_.empty() || marker == std::string::npos) return {};
    const char* seconds = location.c_str() + marker + kLocationMarkerLength;
    return {static_cast<int32_t>(std::strtol(seconds, nullptr, 10)), 0};
}

int64_t M4bBook::getBookSize() const {
    return chapters_.empty() ? 0 : FileSize(getBookPath());
}

}  // namespace audio
}  // namespace quorvel
