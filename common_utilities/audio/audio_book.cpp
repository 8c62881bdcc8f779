#include "common_utilities/audio/audio_book.h"

#include <sys/stat.h>

#include <cstdio>

#include "common_utilities/audio/empty_book.h"
#include "common_utilities/audio/m4b_book.h"
#include "common_utilities/audio/mp3_book.h"
#include "common_utilities/audio/mp3_zip_book.h"

namespace quorvel {
namespace audio {

std::shared_ptr<AudioBook> AudioBook::factory(AudioBookType type) {
    switch (type) {
        case EmptyType:
            return std::make_shared<EmptyBook>();
        case M4bType:
            return std::make_shared<M4bBook>();
        case Mp3Type:
            return std::make_shared<Mp3Book>();
        case Mp3ZipType:
            return std::make_shared<Mp3ZipBook>();
    }
    return nullptr;
}

AudioBook::~AudioBook() = default;

AudioBook::Chapter AudioBook::getChapter(unsigned index) const {
    return index < chapters_.size() ? chapters_[index] : Chapter{};
}

int AudioBook::getChapterDuration(unsigned index) const {
    if (index >= chapters_.size()) return 0;
    const Chapter& chapter = chapters_[index];
    // Widened first: the difference of two extreme int32 values does not fit one.
    return static_cast<int>((static_cast<int64_t>(chapter.end_position) - chapter.start_position) /
                            1000);
}

float AudioBook::getBookPercents(int track, int position) const {
    return static_cast<float>(getPositionInBook(track, position)) / static_cast<float>(duration_);
}

std::string AudioBook::MakeLocation(const std::string& path, int position) {
    char seconds[16];
    std::snprintf(seconds, sizeof seconds, "%d", position);
    return path + ":#loc(" + seconds + ")";
}

size_t AudioBook::FindLocationMarker(const std::string& location) {
    return location.rfind(":#loc(");
}

int64_t AudioBook::FileSize(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return 0;
    return static_cast<int64_t>(info.st_size);
}

}  // namespace audio
}  // namespace quorvel
