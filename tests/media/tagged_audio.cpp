#include "tagged_audio.h"

#include <gtest/gtest.h>
#include <taglib/fileref.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/mpegfile.h>
#include <taglib/id3v2tag.h>
#include <taglib/tag.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "child_process.h"

namespace tagtest {
namespace {

using qvtest::ChildResult;
using qvtest::RunProgram;

void Run(const std::vector<std::string>& argv) {
    const ChildResult result = RunProgram(argv);
    ASSERT_TRUE(result.Succeeded()) << argv[0] << ": " << result.Describe();
}

void SetTags(TagLib::Tag& tag, const Tags& tags) {
    tag.setTitle(TagLib::String(tags.title, TagLib::String::UTF8));
    tag.setArtist(TagLib::String(tags.artist, TagLib::String::UTF8));
    tag.setAlbum(TagLib::String(tags.album, TagLib::String::UTF8));
    tag.setGenre(TagLib::String(tags.genre, TagLib::String::UTF8));
    tag.setTrack(tags.track);
}

// Fixed-width, zero-padded field of an ID3v1 block.
std::string Field(const std::string& text, size_t width) {
    std::string field = text.substr(0, width);
    field.resize(width, '\0');
    return field;
}

}  // namespace

void MakeBareMp3(const std::string& path, double seconds) {
    const std::string wav = path + ".tone.wav";
    Run({"sox", "-n", "-r", "22050", "-c", "1", wav, "synth", std::to_string(seconds), "sine",
         "330"});
    Run({"lame", "--quiet", "-b", "32", wav, path});
    std::remove(wav.c_str());
}

void MakeTaggedMp3(const std::string& path, const Tags& tags, double seconds) {
    MakeBareMp3(path, seconds);
    TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(TagLib::String::UTF8);
    TagLib::MPEG::File file(path.c_str());
    ASSERT_TRUE(file.isValid()) << path;
    SetTags(*file.ID3v2Tag(true), tags);
    ASSERT_TRUE(file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers)) << path;
}

void MakeTaggedOgg(const std::string& path, const Tags& tags, double seconds) {
    Run({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
         "sine=frequency=440:duration=" + std::to_string(seconds), "-c:a", "libvorbis", path});
    TagLib::FileRef file(path.c_str());
    ASSERT_FALSE(file.isNull()) << path;
    SetTags(*file.tag(), tags);
    ASSERT_TRUE(file.save()) << path;
}

void AppendId3v1(const std::string& path, const std::string& title, const std::string& artist) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << "TAG" << Field(title, 30) << Field(artist, 30) << Field("", 30) << Field("", 4)
        << Field("", 30) << '\xff';
}

void MakeZip(const std::string& archive,
             const std::vector<std::pair<std::string, std::string>>& members, bool store) {
    // zip names members by their path below the working directory: lay them out in a staging
    // folder under the names they get inside.
    const std::string staging = archive + ".staging";
    std::vector<std::string> argv = {"sh", "-c"};
    std::string script = "set -e; rm -rf '" + staging + "'; mkdir -p '" + staging + "'; ";
    for (const auto& [name, file] : members) {
        script += "mkdir -p \"$(dirname '" + staging + "/" + name + "')\"; cp '" + file + "' '" +
                  staging + "/" + name + "'; ";
    }
    script += "cd '" + staging + "' && zip -q -r " + std::string(store ? "-0 " : "") + "'" +
              archive + "' .; rm -rf '" + staging + "'";
    argv.push_back(script);
    Run(argv);
}

char PatternByte(size_t offset) {
    return static_cast<char>((offset * 7 + offset / 251) & 0xff);
}

void WritePattern(const std::string& path, size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = PatternByte(i);
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace tagtest
