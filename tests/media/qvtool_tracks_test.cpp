// qvtool's media library commands as a user runs them: exit codes, and the output a user or a
// script reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "boardprofile.h"
#include "child_process.h"
#include "media_test_support.h"
#include "moorglass.h"

namespace {

using namespace mediatest;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

const std::string kLibrary = "/mnt/ext1/system/player-2/player-2.db";

qvtest::ChildResult Qv(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), qvtest::BuildProgram("qvtool"));
    return qvtest::RunProgram(args, input);
}

// The lines of `output` that contain `fragment`, in order: rows of a table, by a word of theirs.
std::vector<std::string> RowsWith(const std::string& output, const std::string& fragment) {
    std::vector<std::string> rows;
    size_t start = 0;
    while (start < output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string::npos) end = output.size();
        std::string line = output.substr(start, end - start);
        if (line.find(fragment) != std::string::npos) rows.push_back(line);
        start = end + 1;
    }
    return rows;
}

const char kLibraryTsv[] =
    "# path\ttitle\tartist\talbum\tgenre\tno\tduration\tsize\n"
    "/mnt/ext1/Music/Bär/2.mp3\tZweite\tBär\tHonig\tPop\t2\t3:05\t1000\n"
    "/mnt/ext1/Music/Bär/1.mp3\tErste\tBär\tHonig\tPop\t1\t185\n"
    "/mnt/ext1/Music/Apfel/a.mp3\tÄpfel\tApfel\n"
    "\n"
    "/mnt/ext1/Music/loose.mp3\n";

TEST(QvtoolTracks, ImportListsGroupsAndSearchesInTheInterfaceLanguage) {
    SetGlobal("language", "de");  // read by the platform when the tool starts

    auto bad = Qv({"tracks", "import", "-"}, std::string(kLibraryTsv) + "/tmp/x.mp3\tWrong\n");
    EXPECT_EQ(2, bad.exit_code) << bad.output;
    EXPECT_THAT(bad.output, HasSubstr("-:7: /tmp/x.mp3: on no storage"));
    auto bad_number = Qv({"tracks", "import", "-"}, "/mnt/ext1/a.mp3\tA\t\t\t\tseven\n");
    EXPECT_EQ(2, bad_number.exit_code) << bad_number.output;
    EXPECT_THAT(bad_number.output, HasSubstr("-:1:"));
    EXPECT_FALSE(Exists(kLibrary));  // checked before anything was written

    auto imported = Qv({"tracks", "import", "-"}, kLibraryTsv);
    ASSERT_EQ(0, imported.exit_code) << imported.output;
    EXPECT_THAT(imported.output, HasSubstr("imported 4 of 4 tracks"));
    auto again = Qv({"tracks", "import", "-"}, kLibraryTsv);
    EXPECT_THAT(again.output, HasSubstr("imported 0 of 4 tracks, 4 already in the library"));

    auto album = Qv({"tracks", "list", "--album", "Honig", "--exact", "--sort", "track"});
    ASSERT_EQ(0, album.exit_code) << album.output;
    auto rows = RowsWith(album.output, "Honig");
    ASSERT_EQ(2u, rows.size()) << album.output;
    EXPECT_THAT(rows[0], HasSubstr("Erste"));
    EXPECT_THAT(rows[0], HasSubstr("3:05"));
    EXPECT_THAT(rows[1], HasSubstr("Zweite"));
    EXPECT_THAT(album.output, HasSubstr("(2 tracks)"));

    // German order puts "Ä" beside "A"; bytes would put it after "Z".
    auto titles = Qv({"tracks", "list"});
    auto music = RowsWith(titles.output, "/mnt/ext1/Music/");
    ASSERT_EQ(4u, music.size()) << titles.output;
    EXPECT_THAT(music[1], HasSubstr("Äpfel"));
    EXPECT_THAT(music[2], HasSubstr("Erste"));

    auto artists = Qv({"tracks", "groups", "artist", "--desc"});
    auto groups = RowsWith(artists.output, " 1");
    EXPECT_THAT(artists.output, ContainsRegex("Bär +2"));
    ASSERT_EQ(2u, groups.size()) << artists.output;
    EXPECT_THAT(groups[0], HasSubstr("Apfel"));
    EXPECT_THAT(groups[1], HasSubstr("(none)"));  // the empty group last, in either direction

    mg_buildpath("/mnt/ext1/Music/Bär/x");
    mg_buildpath("/mnt/ext1/Music/Apfel/x");
    auto dirs = Qv({"tracks", "dirs", "/mnt/ext1/Music/"});
    EXPECT_EQ(0, dirs.exit_code) << dirs.output;
    EXPECT_THAT(dirs.output, ContainsRegex("Apfel +1"));
    EXPECT_THAT(dirs.output, HasSubstr("(2 directories)"));
    EXPECT_EQ(3, Qv({"tracks", "dirs", "/mnt/ext1/Nowhere"}).exit_code);

    auto found = Qv({"tracks", "search", "honig"});
    EXPECT_THAT(found.output, HasSubstr("(2 tracks)"));
    EXPECT_EQ(2, Qv({"tracks", "search", "it's"}).exit_code);
}

TEST(QvtoolTracks, AddAndRemoveKeepOneTrackPerFileOnAStoragePresent) {
    auto added = Qv({"tracks", "add", "/mnt/ext1/Music/song.mp3", "--title", "Song", "--artist",
                     "Band", "--duration", "4:07", "--track-no", "5"});
    ASSERT_EQ(0, added.exit_code) << added.output;
    EXPECT_THAT(added.output, HasSubstr("added track 1: /mnt/ext1/Music/song.mp3"));
    EXPECT_EQ("247", QueryOne(kLibrary, "SELECT duration FROM tracks WHERE title = 'Song'"));

    auto twice = Qv({"tracks", "add", "/mnt/ext1/Music/song.mp3"});
    EXPECT_EQ(1, twice.exit_code);
    EXPECT_THAT(twice.output, HasSubstr("already, as track 1"));
    EXPECT_EQ(2, Qv({"tracks", "add", "Music/song.mp3"}).exit_code);
    EXPECT_EQ(2, Qv({"tracks", "add", "/mnt/ext1/x.mp3", "--duration", "4:75"}).exit_code);

    // The card: refused while the slot is empty, kept apart by its serial number.
    EXPECT_EQ(4, Qv({"tracks", "add", "/mnt/ext2/card.mp3"}).exit_code);
    ASSERT_EQ(0, Qv({"card", "insert", "5D01"}).exit_code);
    ASSERT_EQ(0, Qv({"tracks", "add", "/mnt/ext2/card.mp3", "--title", "On Card"}).exit_code);
    EXPECT_THAT(Qv({"tracks", "list"}).output, HasSubstr("On Card"));
    ASSERT_EQ(0, Qv({"card", "remove"}).exit_code);
    EXPECT_THAT(Qv({"tracks", "list"}).output, Not(HasSubstr("On Card")));
    EXPECT_EQ(0, IsSDinserted());

    EXPECT_EQ(3, Qv({"tracks", "rm", "99"}).exit_code);
    auto removed = Qv({"tracks", "rm", "1"});
    EXPECT_EQ(0, removed.exit_code) << removed.output;
    EXPECT_THAT(Qv({"tracks", "list"}).output, HasSubstr("(0 tracks)"));
}

TEST(QvtoolTracks, CommandLineMistakesAreUsageErrors) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"tracks", "list", "--exact"},
             {"tracks", "list", "--artist", "a", "--album", "b"},
             {"tracks", "list", "--sort", "colour"},
             {"tracks", "list", "--artist", "say \"hi\""},
             {"tracks", "groups", "colour"},
             {"tracks", "rm", "one"},
             {"tracks", "import"},
         }) {
        auto result = Qv(args);
        EXPECT_EQ(2, result.exit_code) << args[1] << " " << result.output;
    }
    EXPECT_EQ(3, Qv({"tracks", "import", "/mnt/ext1/none.tsv"}).exit_code);
}

TEST(QvtoolDb, CheckReportsWhatTheSetUpFoundAndDid) {
    auto fresh = Qv({"db", "check"});
    EXPECT_EQ(0, fresh.exit_code) << fresh.output;
    EXPECT_THAT(fresh.output, HasSubstr("result: created at version 1"));
    EXPECT_THAT(Qv({"db", "check"}).output, HasSubstr("result: kept as it was"));

    // Scripts of the next version upgrade the file in place; without scripts it is replaced.
    MakeScriptsArchive("/tmp/scripts.tar.gz", {{"1to2.sql", "UPDATE version SET id = 2;\n"}});
    auto upgraded = Qv({"db", "check", "--version", "2", "--scripts", "/tmp/scripts.tar.gz"});
    EXPECT_EQ(0, upgraded.exit_code) << upgraded.output;
    EXPECT_THAT(upgraded.output, HasSubstr("result: upgraded from version 1 to 2"));
    EXPECT_THAT(upgraded.output, HasSubstr("Use script"));
    auto replaced = Qv({"db", "check", "--version", "3", "--scripts", "/tmp/none.tar.gz"});
    EXPECT_THAT(replaced.output,
                HasSubstr("result: replaced by a new file: the scripts did not bring version 2"));

    const std::string other = "/mnt/ext1/other.db";
    WriteFile(other, std::string(8192, '#'));
    auto damaged = Qv({"db", "check", other});
    EXPECT_EQ(1, damaged.exit_code) << damaged.output;
    EXPECT_THAT(damaged.output, HasSubstr("no database (damaged)"));
    EXPECT_THAT(damaged.output, HasSubstr("marked as damaged"));
    auto remade = Qv({"db", "check", other});
    EXPECT_EQ(0, remade.exit_code) << remade.output;
    EXPECT_THAT(remade.output, HasSubstr("result: deleted as marked damaged, and made anew"));
}

}  // namespace
