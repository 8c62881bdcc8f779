#include "media_files.h"

#include <gtest/gtest.h>

#include <fstream>

#include "child_process.h"

namespace qvtest {

namespace {

void Run(const std::vector<std::string>& argv) {
    const ChildResult result = RunProgram(argv);
    ASSERT_TRUE(result.Succeeded()) << argv[0] << ": " << result.Describe();
}

}  // namespace

void MakeMp3(const std::string& path, double seconds, const std::string& title,
             const std::string& artist, const std::string& cover) {
    const std::string wav = path + ".source.wav";
    Run({"sox", "-n", "-r", "44100", "-c", "2", wav, "synth", std::to_string(seconds), "sine",
         "330"});
    std::vector<std::string> lame = {"lame", "--quiet", "--tt", title, "--ta", artist};
    if (!cover.empty()) lame.insert(lame.end(), {"--ti", cover});
    lame.insert(lame.end(), {wav, path});
    Run(lame);
    std::remove(wav.c_str());
}

void MakeM4b(const std::string& path, double seconds, const std::string& title,
             const std::string& artist, const std::vector<ChapterSpec>& chapters) {
    const std::string meta = path + ".meta.txt";
    {
        std::ofstream out(meta);
        out << ";FFMETADATA1\ntitle=" << title << "\nartist=" << artist << "\n";
        for (const auto& chapter : chapters) {
            out << "[CHAPTER]\nTIMEBASE=1/1000\nSTART=" << chapter.start_ms
                << "\nEND=" << chapter.end_ms << "\ntitle=" << chapter.title << "\n";
        }
    }
    Run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
         "sine=frequency=440:duration=" + std::to_string(seconds), "-i", meta, "-map", "0",
         "-map_metadata", "1", "-map_chapters", "1", "-c:a", "aac", "-b:a", "64k", "-f", "ipod",
         path});
    std::remove(meta.c_str());
}

void MakeJpeg(const std::string& path) {
    Run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "color=c=red:s=16x16", "-frames:v",
         "1", path});
}

void MakeZip(const std::string& archive, const std::vector<std::string>& files) {
    std::vector<std::string> argv = {"zip", "-q", "-j", archive};
    argv.insert(argv.end(), files.begin(), files.end());
    Run(argv);
}

double ProbeSeconds(const std::string& path) {
    const ChildResult result =
        RunProgram({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of",
                    "default=noprint_wrappers=1:nokey=1", path});
    if (!result.Succeeded()) return -1;
    return std::stod(result.output);
}

}  // namespace qvtest
