#include "common_utilities/audio/mp3_zip_book.h"

#include "moorglass.h"

namespace quorvel {
namespace audio {

// The archive: the first chapter's path up to its first ":#zip(", or all of it without one.
std::string Mp3ZipBook::getBookPath() const {
    if (chapters_.empty()) return {};
    const std::string& path = chapters_.front().path;
    return path.substr(0, path.find(":#zip("));
}

bool Mp3ZipBook::removeBookFromDevice() {
    if (!chapters_.empty()) mg_unlink(getBookPath().c_str());
    return true;
}

int64_t Mp3ZipBook::getBookSize() const {
    return chapters_.empty() ? 0 : FileSize(getBookPath());
}

}  // namespace audio
}  // namespace quorvel
