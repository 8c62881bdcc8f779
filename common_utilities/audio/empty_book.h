// A book without content: a placeholder record that converts every place to nothing.
#pragma once

#include "common_utilities/audio/audio_book.h"

namespace quorvel {
namespace audio {

class QV_EXPORT EmptyBook : public AudioBook {
public:
    EmptyBook() : AudioBook(EmptyType) {}

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
