// qvtool tags, playlist and scan on files made at test time: what a person sees, exit codes, and
// a scan that goes on past files it can't read.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "child_process.h"
#include "tagged_audio.h"

namespace {

using qvtest::Contains;
using qvtest::Qvtool;

const std::string kMusic = "/mnt/ext1/Music";

class QvtoolScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* dir : {"", "/Rain", "/Books", "/Books/Winter"})
            ::mkdir((kMusic + dir).c_str(), 0755);
        tagtest::MakeTaggedMp3(kMusic + "/Rain/1.mp3", {"Drops", "Quartet", "Rain", "Jazz", 1});
        tagtest::MakeTaggedMp3(kMusic + "/Rain/2.mp3", {"Жара", "Quartet", "Rain", "Jazz", 2});
        std::ofstream(kMusic + "/Rain/broken.ogg") << "not audio";
        std::ofstream(kMusic + "/Rain/cover.jpg") << "not audio either";
    }
};

TEST_F(QvtoolScanTest, TagsAndPlaylistCommands) {
    auto tags = Qvtool({"tags", kMusic + "/Rain/2.mp3", kMusic + "/Rain/1.mp3"});
    EXPECT_EQ(tags.exit_code, 0) << tags.Describe();
    EXPECT_TRUE(Contains(tags.output, "Жара")) << tags.output;
    EXPECT_TRUE(Contains(tags.output, "(2 tracks)")) << tags.output;
    EXPECT_EQ(Qvtool({"tags", kMusic + "/Rain/broken.ogg"}).exit_code, 1);
    EXPECT_EQ(Qvtool({"tags", kMusic + "/Rain/1.mp3", kMusic + "/none.mp3"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"tags"}).exit_code, 2);

    const std::string list = kMusic + "/list.m3u";
    auto save = Qvtool({"playlist", "save", list, kMusic + "/Rain"});
    EXPECT_EQ(save.exit_code, 0) << save.Describe();
    auto load = Qvtool({"playlist", "load", list});
    EXPECT_EQ(load.exit_code, 0) << load.Describe();
    EXPECT_TRUE(Contains(load.output, "Quartet  Drops")) << load.output;
    EXPECT_TRUE(Contains(load.output, "(2 tracks)")) << load.output;
    EXPECT_EQ(Qvtool({"playlist", "load", kMusic + "/none.m3u"}).exit_code, 3);
    auto dir = Qvtool({"playlist", "dir", "--with-playlists", kMusic});
    EXPECT_TRUE(Contains(dir.output, "(4 tracks)")) << dir.output;
    EXPECT_EQ(Qvtool({"playlist", "dir", kMusic + "/none"}).exit_code, 3);
}

TEST_F(QvtoolScanTest, ScanStoresEachFileOnceAndGoesOnPastUnreadableOnes) {
    tagtest::MakeTaggedMp3(kMusic + "/Books/Winter/a.mp3", {"One", "Echo", "Winter", "", 1});
    tagtest::MakeTaggedMp3(kMusic + "/Books/Winter/b.mp3", {"Two", "Echo", "Winter", "", 2});
    tagtest::MakeZip(kMusic + "/Books/Harbour.mp3.zip", {{"01.mp3", kMusic + "/Rain/1.mp3"}});

    auto first = Qvtool({"scan", "--books", kMusic + "/Books", kMusic});
    EXPECT_EQ(first.exit_code, 1) << first.Describe();  // broken.ogg
    EXPECT_TRUE(Contains(first.output, kMusic + "/Rain/broken.ogg: tags could not be read"))
        << first.output;
    EXPECT_TRUE(Contains(first.output, "4 added to the media library, 0 there already, 1 "
                                       "unreadable"))
        << first.output;
    // The size stored is the file's own.
    struct stat st {};
    ASSERT_EQ(0, ::stat((kMusic + "/Rain/2.mp3").c_str(), &st));
    auto size = qvtest::RunProgram(
        {"sqlite3", "/mnt/ext1/system/player-2/player-2.db",
         "SELECT size FROM tracks t JOIN folders f ON t.folder = f.id WHERE f.name = '" + kMusic +
             "/Rain' AND t.filename = '2.mp3'"});
    EXPECT_EQ(std::to_string(st.st_size) + "\n", size.output) << size.Describe();
    const bool engine = ::access("/zelgrot/lib/libaudio-engine.so", R_OK) == 0;
    if (engine) {
        EXPECT_TRUE(Contains(first.output, "3 files offered, 0 refused, 2 new books"))
            << first.output;
    }

    ::unlink((kMusic + "/Rain/broken.ogg").c_str());
    auto second = Qvtool({"scan", "--books", kMusic + "/Books", kMusic});
    EXPECT_EQ(second.exit_code, engine ? 0 : 1) << second.Describe();
    EXPECT_TRUE(Contains(second.output, "0 added to the media library, 4 there already"))
        << second.output;
    if (engine) {
        EXPECT_TRUE(Contains(second.output, "0 new books")) << second.output;
    }

    auto groups = Qvtool({"tracks", "groups", "artist"});
    EXPECT_TRUE(Contains(groups.output, "Quartet")) << groups.output;
    EXPECT_TRUE(Contains(groups.output, "Echo")) << groups.output;

    EXPECT_EQ(Qvtool({"scan", kMusic + "/none"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"scan"}).exit_code, 2);
}

}  // namespace
