// qvtool's zip and audiobooks commands as a user runs them: exit codes, and the output a user or
// a script reads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "child_process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

qvtest::ChildResult Qv(std::vector<std::string> args) {
    args.insert(args.begin(), qvtest::BuildProgram("qvtool"));
    return qvtest::RunProgram(args);
}

void ExpectExit(int code, const qvtest::ChildResult& result) {
    EXPECT_EQ(code, result.exit_code) << result.Describe();
}

TEST(QvtoolZip, ListsAndWritesMembersAndNamesWhatIsMissing) {
    auto made = qvtest::RunProgram(
        {"sh", "-c",
         "mkdir -p /tmp/t/Disc && cd /tmp/t && printf 'bytes\\0of\\0a track' > Disc/01.mp3 && "
         "seq 1 50000 > big.txt && zip -qr /mnt/ext1/book.zip . && echo text > /mnt/ext1/x.txt"});
    ASSERT_TRUE(made.Succeeded()) << made.Describe();

    auto list = Qv({"zip", "ls", "/mnt/ext1/book.zip"});
    ExpectExit(0, list);
    EXPECT_THAT(list.output, HasSubstr("Disc/01.mp3\n"));
    EXPECT_THAT(list.output, HasSubstr("big.txt\n"));
    EXPECT_THAT(list.output, HasSubstr("(3 entries)"));

    auto cat = Qv({"zip", "cat", "/mnt/ext1/book.zip", "disc/01.MP3"});
    ExpectExit(0, cat);
    EXPECT_EQ(std::string("bytes\0of\0a track", 16), cat.output);
    auto whole = qvtest::RunProgram(
        {"sh", "-c",
         qvtest::BuildProgram("qvtool") +
             " zip cat /mnt/ext1/book.zip big.txt | cmp - /tmp/t/big.txt && echo same"});
    EXPECT_THAT(whole.output, HasSubstr("same"));

    ExpectExit(3, Qv({"zip", "cat", "/mnt/ext1/book.zip", "02.mp3"}));
    ExpectExit(3, Qv({"zip", "ls", "/mnt/ext1/none.zip"}));
    auto not_zip = Qv({"zip", "ls", "/mnt/ext1/x.txt"});
    ExpectExit(1, not_zip);
    EXPECT_THAT(not_zip.output, HasSubstr("not a zip archive"));
    ExpectExit(2, Qv({"zip", "cat", "/mnt/ext1/book.zip"}));
}

TEST(QvtoolAudiobooks, AddStateBookmarksListShowAndRemove) {
    ExpectExit(0,
               Qv({"audiobooks", "add", "mp3", "Second", "--author", "Ann", "--chapter",
                   "/mnt/ext1/B/01.mp3|0|100|One", "--chapter", "/mnt/ext1/B/02.mp3|0|3:20|Two"}));
    auto zipped = qvtest::RunProgram({"sh", "-c",
                                      "mkdir -p /tmp/z/d && echo x > /tmp/z/d/01.mp3 && cd /tmp/z "
                                      "&& zip -qr /mnt/ext1/b.zip d"});
    ASSERT_TRUE(zipped.Succeeded()) << zipped.Describe();
    ExpectExit(0, Qv({"audiobooks", "add", "zip", "First", "--chapter",
                      "/mnt/ext1/b.zip:#zip(d/01.mp3)|0|60", "--chapter",
                      "/mnt/ext1/b.zip:#zip(d/02.mp3)|0|60"}));
    ExpectExit(2, Qv({"audiobooks", "add", "ogg", "X"}));
    ExpectExit(2, Qv({"audiobooks", "add", "mp3", "X", "--chapter", "/a.mp3|9|1"}));

    auto state = Qv({"audiobooks", "state", "1", "2:00", "40"});
    ExpectExit(0, state);
    EXPECT_THAT(state.output, HasSubstr("/mnt/ext1/B/02.mp3:#loc(20)"));
    ExpectExit(0, Qv({"audiobooks", "bookmark", "add", "1", "150", "--title", "mark"}));
    ExpectExit(0, Qv({"audiobooks", "bookmark", "edit", "1", "--note", "remember"}));

    auto by_title = Qv({"audiobooks", "list"});
    ExpectExit(0, by_title);
    EXPECT_LT(by_title.output.find("First"), by_title.output.find("Second"));
    auto by_last = Qv({"audiobooks", "list", "--order", "last"});
    EXPECT_LT(by_last.output.find("Second"), by_last.output.find("First"));
    EXPECT_THAT(by_last.output, HasSubstr("40%"));
    ExpectExit(2, Qv({"audiobooks", "list", "--order", "size"}));

    auto show = Qv({"audiobooks", "show", "1"});
    ExpectExit(0, show);
    EXPECT_THAT(show.output, HasSubstr("Duration: 0:05:00"));
    EXPECT_THAT(show.output, HasSubstr("40% read, at 0:02:00 (track 1, 0:00:20)"));
    EXPECT_THAT(show.output, testing::ContainsRegex("0:02:30 +mark +remember"));
    EXPECT_THAT(show.output, testing::ContainsRegex("2 +Two +0:00:00 +0:03:20 +0:01:40"));
    EXPECT_THAT(show.output, testing::ContainsRegex("/mnt/ext1/B/01.mp3 +no"));
    auto zip_show = Qv({"audiobooks", "show", "2"});
    EXPECT_THAT(zip_show.output, testing::ContainsRegex("zip\\(d/01.mp3\\) +yes"));
    EXPECT_THAT(zip_show.output, testing::ContainsRegex("zip\\(d/02.mp3\\) +no"));

    for (auto args : std::vector<std::vector<std::string>>{{"audiobooks", "show", "9"},
                                                           {"audiobooks", "state", "9", "0", "1"},
                                                           {"audiobooks", "bookmark", "rm", "5"},
                                                           {"audiobooks", "rm", "9"}})
        ExpectExit(3, Qv(args));
    ExpectExit(0, Qv({"audiobooks", "bookmark", "rm", "1"}));
    ExpectExit(0, Qv({"audiobooks", "rm", "1"}));
    auto left = Qv({"audiobooks", "list"});
    EXPECT_THAT(left.output, Not(HasSubstr("Second")));
    EXPECT_THAT(left.output, HasSubstr("(1 book)"));
}

}  // namespace
