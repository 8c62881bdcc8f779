// qvtool's shell, cover, file type and keyboard commands, as a user runs them.

#include <gtest/gtest.h>

#include <thread>

#include "child_process.h"

namespace {

using namespace std::chrono_literals;
using qvtest::Contains;
using qvtest::Qvtool;

TEST(QvtoolShell, ShellAnswersTheOtherCommands) {
    auto shell =
        qvtest::ChildProcess::Run({qvtest::BuildProgram("qvtool"), "shell", "--answers", "2"});
    for (int i = 0; i < 400 && !Contains(shell.OutputSoFar(), "shell ready"); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    auto dialog = Qvtool({"dialog", "Delete?", "For good", "Delete", "Keep"});
    EXPECT_EQ(dialog.exit_code, 0) << dialog.Describe();
    EXPECT_TRUE(Contains(dialog.output, "button 2: Keep")) << dialog.output;
    auto message = Qvtool({"message", "--timeout", "100", "Saved", "All done"});
    EXPECT_TRUE(Contains(message.output, "shown")) << message.Describe();
    EXPECT_EQ(Qvtool({"open", "/mnt/ext1/none.epub"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"dialog", "only a title"}).exit_code, 2);
    shell.Kill(SIGINT);
    auto served = shell.Wait(10s);
    EXPECT_EQ(served.exit_code, 130);
    EXPECT_TRUE(Contains(served.output, "[dialog] Delete?")) << served.output;
    EXPECT_TRUE(Contains(served.output, "[message] Saved")) << served.output;
}

TEST(QvtoolShell, CoversOfAShelfAndFileTypes) {
    auto books = Qvtool({"host", "books", "--count", "5", "/mnt/ext1/Shelf"});
    ASSERT_EQ(books.exit_code, 0) << books.Describe();
    auto covers =
        Qvtool({"covers", "--size", "60x80", "--sheet", "/tmp/sheet.png", "/mnt/ext1/Shelf"});
    EXPECT_EQ(covers.exit_code, 0) << covers.Describe();
    EXPECT_TRUE(Contains(covers.output, "5 covers of 5 books (3 made by the scanner, 0 without)"))
        << covers.output;
    EXPECT_TRUE(Contains(qvtest::RunProgram({"identify", "/tmp/sheet.png"}).output, "PNG 348x96"));

    auto cover = Qvtool({"cover", "/mnt/ext1/Shelf/book1.pdf"});
    EXPECT_EQ(cover.exit_code, 0) << cover.Describe();
    EXPECT_TRUE(Contains(cover.output, "state 0 (loaded)")) << cover.output;
    EXPECT_TRUE(
        Contains(cover.output, "cache /mnt/ext1/system/cover_chache/1/Shelf/book1.pdf.png"));
    EXPECT_EQ(Qvtool({"cover", "/mnt/ext1/none.pdf"}).exit_code, 3);

    auto type = Qvtool({"filetype", "Novel.EPUB"});
    EXPECT_TRUE(Contains(type.output, "epub\ttype 1\treader.app")) << type.Describe();
    EXPECT_EQ(Qvtool({"filetype", "xyz"}).exit_code, 3);
    EXPECT_TRUE(Contains(Qvtool({"filetype", "--list"}).output, "tiff\ttype 2"));
}

TEST(QvtoolShell, KeyboardReadsALine) {
    auto typed = Qvtool({"keyboard", "--label", "Name"}, "Ada Lovelace\n");
    EXPECT_EQ(typed.exit_code, 0) << typed.Describe();
    EXPECT_TRUE(Contains(typed.output, "Ada Lovelace")) << typed.output;
    EXPECT_EQ(Qvtool({"keyboard"}, "").exit_code, 1) << "the end of input cancels";
}

}  // namespace
