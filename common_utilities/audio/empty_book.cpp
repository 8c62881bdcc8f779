#include "common_utilities/audio/empty_book.h"

namespace quorvel {
namespace audio {

std::vector<AudioBook::Track> EmptyBook::getBookPlaylist() const {
    return {};
}

int EmptyBook::getChapterIndex(int, int) const {
    return 0;
}

AudioBook::PlayPosition EmptyBook::getChapterPlayInfo(unsigned) const {
    return {};
}

std::string EmptyBook::getBookPath() const {
    return {};
}

bool EmptyBook::removeBookFromDevice() {
    return true;
}

int EmptyBook::getPositionInBook(int, int) const {
    return 0;
}

AudioBook::PlayPosition EmptyBook::getPositionInTrack(int) const {
    return {};
}

std::string EmptyBook::positionToLocation(int, int) const {
    return {};
}

AudioBook::PlayPosition EmptyBook::locationToPosition(const std::string&) const {
    return {};
}

int64_t EmptyBook::getBookSize() const {
    return 0;
}

}  // namespace audio
}  // namespace quorvel
