// qvtool play on books stored through qvtool audiobooks, with files made at test time.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "child_process.h"
#include "media_files.h"

namespace {

using qvtest::Contains;
using qvtest::Qvtool;

TEST(QvtoolPlay, PlaysExcerptsOfBooksToWavAcrossTracks) {
    std::filesystem::create_directories("/mnt/ext1/Books");
    qvtest::MakeM4b("/mnt/ext1/Books/tide.m4b", 6, "Tide", "Quay",
                    {{0, 2000, "Low water"}, {2000, 6000, "High water"}});
    qvtest::MakeMp3("/tmp/01.mp3", 2, "First", "Quay");
    qvtest::MakeMp3("/tmp/02.mp3", 2, "Second", "Quay");
    qvtest::MakeZip("/mnt/ext1/Books/letters.mp3.zip", {"/tmp/01.mp3", "/tmp/02.mp3"});
    ASSERT_TRUE(Qvtool({"audiobooks", "add", "m4b", "Tide", "--chapter",
                        "/mnt/ext1/Books/tide.m4b|0|2|Low water", "--chapter",
                        "/mnt/ext1/Books/tide.m4b|2|6|High water"})
                    .Succeeded());
    ASSERT_TRUE(Qvtool({"audiobooks", "add", "zip", "Letters", "--chapter",
                        "/mnt/ext1/Books/letters.mp3.zip:#zip(01.mp3)|0|2|One", "--chapter",
                        "/mnt/ext1/Books/letters.mp3.zip:#zip(02.mp3)|0|2|Two"})
                    .Succeeded());
    ASSERT_TRUE(Qvtool({"audiobooks", "state", "1", "3", "50"}).Succeeded());

    // From where the book was left, to the end of the book.
    auto played = Qvtool({"play", "1", "--to", "/tmp/tide.wav"});
    ASSERT_TRUE(played.Succeeded()) << played.Describe();
    EXPECT_TRUE(Contains(played.output, "High water  0:00:02  0:00:06")) << played.output;
    EXPECT_TRUE(Contains(played.output, "Playing \"Tide\" from 0:00:03 for 10 s"));
    EXPECT_TRUE(Contains(played.output, "end of the book"));
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/tide.wav"), 3.0, 0.06);

    // Across the members of a zip book.
    played = Qvtool({"play", "2", "--to", "/tmp/letters.wav", "--from", "1", "--seconds", "2"});
    ASSERT_TRUE(played.Succeeded()) << played.Describe();
    EXPECT_TRUE(Contains(played.output, "track 1: /mnt/ext1/Books/letters.mp3.zip:#zip(02.mp3)"))
        << played.output;
    EXPECT_TRUE(Contains(played.output, "at 0:00:03 in the book, 0:00:01 in the track, chapter 2"));
    EXPECT_TRUE(Contains(played.output, "state: stopped"));
    EXPECT_NEAR(qvtest::ProbeSeconds("/tmp/letters.wav"), 2.0, 0.06);

    EXPECT_EQ(Qvtool({"play", "9"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"play", "1", "--seconds", "0"}).exit_code, 2);
    std::filesystem::remove("/mnt/ext1/Books/tide.m4b");
    EXPECT_EQ(Qvtool({"play", "1"}).exit_code, 1);
    std::filesystem::remove("/zelgrot/lib/libaudio-engine.so");
    const auto no_engine = Qvtool({"play", "2"});
    EXPECT_EQ(no_engine.exit_code, 4);
    EXPECT_TRUE(Contains(no_engine.output, "no audio engine")) << no_engine.output;
}

}  // namespace
