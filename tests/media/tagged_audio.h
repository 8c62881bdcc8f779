// Tagged audio files made at test time: a tone from sox and lame (or ffmpeg for Vorbis), tags
// written with TagLib, and ID3v1 blocks written byte by byte for texts in no particular encoding.
#pragma once

#include <string>
#include <vector>

namespace tagtest {

struct Tags {
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    unsigned track = 0;
};

// An MP3 of `seconds` with these tags in an ID3v2 tag, texts stored as UTF-8.
void MakeTaggedMp3(const std::string& path, const Tags& tags, double seconds = 1);
// An MP3 without any tag.
void MakeBareMp3(const std::string& path, double seconds = 1);
// An Ogg Vorbis file with these comments.
void MakeTaggedOgg(const std::string& path, const Tags& tags, double seconds = 1);
// Appends an ID3v1 block whose title and artist are these bytes, as they stand.
void AppendId3v1(const std::string& path, const std::string& title, const std::string& artist);
// An archive of `members` (name inside -> file on disk), stored without compression when `store`.
void MakeZip(const std::string& archive, const std::vector<std::pair<std::string, std::string>>& members,
             bool store = false);
// A file of `size` bytes of a pattern that tells every offset apart (see PatternByte).
void WritePattern(const std::string& path, size_t size);
char PatternByte(size_t offset);

}  // namespace tagtest
