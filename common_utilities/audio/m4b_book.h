// One audio file with the chapters inside it: every chapter names the same file, and the track
// index is always 0.
#pragma once

#include "common_utilities/audio/audio_book.h"

namespace quorvel {
namespace audio {

class QV_EXPORT M4bBook : public AudioBook {
public:
    M4bBook() : AudioBook(M4bType) {}

    std::vector<Track> getBookPlaylist() const override;
    int getChapterIndex(int track, int position) const override;
    PlayPosition getChapterPlayInfo(unsigned index) const override;
    std::string getBookPath() const override;
    bool removeBookFromDevice() override;
    int getPositionInBook(int track, int position) const override;
    PlayPosition getPositionInTrack(int position) const override;
    std::string positionToLocation(int track, int position) const override;
    PlayPosition locationToPosition(const std::string& location) const override;
    int64_t getBookSize() const override;
};

}  // namespace audio
}  // namespace quorvel
