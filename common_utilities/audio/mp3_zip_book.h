// An Mp3Book whose files are the members of one zip archive: every chapter's path is in the
// "<archive>:#zip(<entry>)" form, and the archive is the book's one file on the device.
#pragma once

#include "common_utilities/audio/mp3_book.h"

namespace quorvel {
namespace audio {

class QV_EXPORT Mp3ZipBook : public Mp3Book {
public:
    Mp3ZipBook() : Mp3Book(Mp3ZipType) {}

    std::string getBookPath() const override;
    bool removeBookFromDevice() override;
    int64_t getBookSize() const override;
};

}  // namespace audio
}  // namespace quorvel
