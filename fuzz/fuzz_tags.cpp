// Tags of audio files inside zip archives, as the player and the audiobook reader read them:
// the input is the member's bytes, stored in an archive under a suffix that tells TagLib the
// format, and getFileTags reads it through TagIOStream. Now and then the member is stretched
// past the size at which the stream keeps its head and tail in memory, the input split between
// the two ends, so that the seeks between the caches and the archive are exercised too. What
// the tags hold must come out as valid UTF-8 whatever the code page said.

#include <minizip/zip.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common_utilities/media_library_manager.h"
#include "common_utilities/tag_io_stream.h"
#include "fuzz_support.h"

using quorvel::utilities::MediaLibraryManager;

namespace {

const char* const kSuffixes[] = {"mp3", "ogg", "oga", "flac", "mpc", "wv",  "spx",  "opus",
                                 "tta", "m4a", "m4b", "mp4",  "wma", "asf", "aif",  "wav",
                                 "ape", "xm",  "s3m", "it",   "mod", "MP3", "aiff", "dsf"};
const char* const kCodePages[] = {"1251", "koi8-r", "1252", "1250"};
constexpr size_t kStretched = TagIOStream::kHeadSize + TagIOStream::kTailSize + 4096;

void StoreMember(const std::string& archive, const std::string& name,
                 const std::vector<uint8_t>& bytes) {
    zipFile zip = zipOpen(archive.c_str(), APPEND_STATUS_CREATE);
    zip_fileinfo info{};
    if (zip == nullptr ||
        zipOpenNewFileInZip(zip, name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, 0, 0) !=
            ZIP_OK ||
        zipWriteInFileInZip(zip, bytes.data(), static_cast<unsigned>(bytes.size())) != ZIP_OK ||
        zipCloseFileInZip(zip) != ZIP_OK || zipClose(zip, nullptr) != ZIP_OK)
        qvfuzz::Fail("can't write " + archive);
}

bool ValidUtf8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : 3;
        if (c >= 0x80 && (c < 0xC2 || c > 0xF4)) return false;
        if (extra > 0 && i + extra >= text.size()) return false;
        for (size_t k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t choice = data[0];
    std::vector<uint8_t> member(data + 1, data + size);
    if ((choice & 0xE0) == 0xE0) {
        // Head at the front, tail at the back, zeros between: a file of the cached size.
        const size_t half = member.size() / 2;
        member.insert(member.begin() + static_cast<long>(half), kStretched - member.size(), 0);
    }
    const std::string suffix = kSuffixes[choice % (sizeof kSuffixes / sizeof *kSuffixes)];
    const std::string archive = "/tmp/fuzz-tags.zip";
    const std::string entry = "d/track." + suffix;
    StoreMember(archive, entry, member);

    MediaLibraryManager::encoding_ = kCodePages[(choice >> 5) % 4];
    MediaLibraryManager::Track track;
    track.path = archive + ":#zip(" + entry + ")";
    MediaLibraryManager::getFileTags(track);
    if (track.tags_read) {
        for (const std::string* text : {&track.title, &track.artist, &track.album, &track.genre})
            QVFUZZ_CHECK(ValidUtf8(*text));
    }
    return 0;
}
