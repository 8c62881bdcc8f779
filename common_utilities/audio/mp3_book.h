// One audio file per chapter: a chapter spans its whole file (start 0, end the file's length) and
// the track index is the index in the chapter list.
#pragma once

#include "common_utilities/audio/audio_book.h"

namespace quorvel {
namespace audio {

class QV_EXPORT Mp3Book : public AudioBook {
public:
    Mp3Book() : AudioBook(Mp3Type) {}

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

protected:
    explicit Mp3Book(AudioBookType type) : AudioBook(type) {}
};

}  // namespace audio
}  // namespace quorvel
