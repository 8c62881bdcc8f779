// Tag reading: a Track filled from the file's own tags and properties, also for a member of a
// zip archive. Text that is not valid UTF-8 is taken to be in the user's 8-bit code page.

#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tag.h>

#include <memory>
#include <vector>

#include "common_utilities/media_library_manager.h"
#include "common_utilities/tag_io_stream.h"

namespace quorvel {
namespace utilities {
namespace {

constexpr const char* kZipMarker = ":#zip(";

// ASCII stays 8-bit; anything wider is written as UTF-8.
std::string TagText(const TagLib::String& text) {
    bool wide = false;
    for (wchar_t c : text.toWString()) {
        if (static_cast<unsigned long>(c) >= 0x80) {
            wide = true;
            break;
        }
    }
    return text.to8Bit(wide);
}

// The file's name without its folder and without what follows its last dot.
std::string TitleFromName(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(0, dot);
}

bool IsContinuation(unsigned char c) {
    return c >= 0x80 && c <= 0xBF;
}

// How many bytes a sequence led by `lead` takes, and the range its second byte must lie in;
// 0 for a byte that leads nothing valid.
int SequenceLength(unsigned char lead, unsigned char& low, unsigned char& high) {
    low = 0x80;
    high = 0xBF;
    if (lead == 0x09 || lead == 0x0A || lead == 0x0D || (lead >= 0x20 && lead <= 0x7E)) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

// Valid UTF-8 without control characters: a control byte in a tag means a wrong encoding.
bool IsValidText(const std::string& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
    while (*bytes != 0) {
        unsigned char low = 0;
        unsigned char high = 0;
        int length = SequenceLength(bytes[0], low, high);
        if (length == 0) return false;
        if (length > 1 && (bytes[1] < low || bytes[1] > high)) return false;
        for (int i = 2; i < length; ++i) {
            if (!IsContinuation(bytes[i])) return false;
        }
        bytes += length;
    }
    return true;
}

std::string FromCodePage(const std::string& text) {
    std::vector<char> buffer(text.size() * 4 + 1, '\0');
    convert_to_utf(text.c_str(), buffer.data(), static_cast<int>(buffer.size()),
                   MediaLibraryManager::encoding_.c_str());
    return buffer.data();
}

void ReadTag(const TagLib::Tag& tag, const std::string& name_source,
             MediaLibraryManager::Track& track) {
    // Each accessor of a tag looks its frames up afresh and copies the text: asked once.
    const TagLib::String title = tag.title();
    track.title = title.isEmpty() ? TitleFromName(name_source) : TagText(title);
    track.artist = TagText(tag.artist());
    track.album = TagText(tag.album());
    track.genre = TagText(tag.genre());
    track.track_no = static_cast<int32_t>(tag.track());
}

}  // namespace

void MediaLibraryManager::getFileTags(Track& track) {
    std::string archive;
    std::string entry;
    size_t marker = track.path.find(kZipMarker);
    if (marker != std::string::npos) {
        archive = track.path.substr(0, marker);
        entry = track.path.substr(marker + 6);
        if (!entry.empty()) entry.pop_back();
    }
    // The stream must outlive the FileRef that reads from it.
    std::unique_ptr<TagIOStream> stream;
    std::unique_ptr<TagLib::FileRef> file;
    if (!archive.empty() && !entry.empty()) {
        stream = std::make_unique<TagIOStream>(archive, entry);
        file = std::make_unique<TagLib::FileRef>(stream.get(), true,
                                                 TagLib::AudioProperties::Average);
    } else {
        file = std::make_unique<TagLib::FileRef>(track.path.c_str(), true,
                                                 TagLib::AudioProperties::Average);
    }
    if (file->isNull()) return;
    if (const TagLib::Tag* tag = file->tag()) ReadTag(*tag, entry.empty() ? track.path : entry, track);
    if (const TagLib::AudioProperties* properties = file->audioProperties()) {
        track.duration = properties->length();
    }
    track.tags_read = true;
    for (std::string* text : {&track.title, &track.artist, &track.album, &track.genre}) {
        if (!IsValidText(*text)) *text = FromCodePage(*text);
    }
}

}  // namespace utilities
}  // namespace quorvel
