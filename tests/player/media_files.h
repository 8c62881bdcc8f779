// Audio files made at test time with the programs a person would use: sox and lame for MP3s,
// ffmpeg for M4B books with chapters, zip for archives; ffprobe reads lengths back.
#pragma once

#include <string>
#include <vector>

namespace qvtest {

struct ChapterSpec {
    int start_ms;
    int end_ms;
    std::string title;
};

// A sine tone of `seconds`, tagged with title and artist (and a cover picture when given).
void MakeMp3(const std::string& path, double seconds, const std::string& title,
             const std::string& artist, const std::string& cover = "");
// An AAC book with these chapters, tagged with title and artist.
void MakeM4b(const std::string& path, double seconds, const std::string& title,
             const std::string& artist, const std::vector<ChapterSpec>& chapters);
// A small JPEG picture.
void MakeJpeg(const std::string& path);
// `archive` holding `files` under their base names.
void MakeZip(const std::string& archive, const std::vector<std::string>& files);
// Length of an audio file in seconds as ffprobe reads it; -1 when it can't.
double ProbeSeconds(const std::string& path);

}  // namespace qvtest
