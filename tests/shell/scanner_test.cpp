// The scanner application with real books made at test time, run on its own and through
// RunAdobeScanner (started as a task, then fed through its message queue).

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "book_files.h"
#include "child_process.h"
#include "common_utilities/adobe_scanner.h"
#include "moorglass.h"

namespace {

using namespace std::chrono_literals;
using qvhost::BookKind;
using qvtest::PngSize;

const std::string kScanner = "/zelgrot/bin/adobescanner.app";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

qvtest::ChildResult Scan(const std::string& book, const std::string& cover, bool metadata = false) {
    std::vector<std::string> argv{kScanner, book, cover, "165", "290"};
    if (metadata) argv.push_back("-metadata");
    return qvtest::RunProgram(argv);
}

TEST(Scanner, MakesFittedCoversOfEveryFormat) {
    ::setenv("QV_SCANNER_IDLE_MS", "1", 1);
    struct Case {
        BookKind kind;
        int width, height;
        std::pair<int, int> expected;
    };
    const Case cases[] = {
        {BookKind::kPdf, 330, 290, {165, 145}},  // wider than the box: the width decides
        {BookKind::kEpub, 100, 400, {73, 290}},  // taller: the height decides
        {BookKind::kDjvu, 200, 200, {165, 165}},
        {BookKind::kPng, 50, 60, {165, 198}},  // small covers grow
        {BookKind::kJpeg, 165, 290, {165, 290}},
    };
    for (const Case& c : cases) {
        std::string ext = qvhost::BookExtension(c.kind);
        std::string book = "/mnt/ext1/Books/book." + ext;
        std::string cover = "/mnt/ext1/covers/deep/book." + ext + ".png";
        ASSERT_TRUE(qvhost::WriteSampleBook(c.kind, book, "Title", c.width, c.height, 3)) << ext;
        auto result = Scan(book, cover);
        ASSERT_TRUE(result.Succeeded()) << result.Describe();
        EXPECT_EQ(PngSize(cover), c.expected) << ext;
    }

    // A PDF of another maker: PostScript through Ghostscript.
    std::ofstream("/tmp/page.ps") << "%!PS\n<< /PageSize [200 100] >> setpagedevice\n"
                                     "0.2 0.4 0.8 setrgbcolor 0 0 200 100 rectfill showpage\n";
    ASSERT_TRUE(
        qvtest::RunProgram({"ps2pdf", "/tmp/page.ps", "/mnt/ext1/Books/gs.pdf"}).Succeeded());
    ASSERT_TRUE(Scan("/mnt/ext1/Books/gs.pdf", "/tmp/gs.png").Succeeded());
    EXPECT_EQ(PngSize("/tmp/gs.png"), std::make_pair(165, 83));
}

TEST(Scanner, WritesMetadataAndNothingForUnreadableBooks) {
    ::setenv("QV_SCANNER_IDLE_MS", "1", 1);
    ASSERT_TRUE(
        qvhost::WriteSampleBook(BookKind::kEpub, "/mnt/ext1/a.epub", "Tom & Jerry", 60, 80, 1));
    ASSERT_TRUE(Scan("/mnt/ext1/a.epub", "/tmp/c/a.epub.png", true).Succeeded());
    EXPECT_EQ(ReadAll("/tmp/c/a.epub.metadata"),
              "title=Tom & Jerry\nauthor=Sample Press\npages=\n");
    ASSERT_TRUE(
        qvhost::WriteSampleBook(BookKind::kPdf, "/mnt/ext1/b.pdf", "Report (draft)", 60, 80, 1));
    ASSERT_TRUE(Scan("/mnt/ext1/b.pdf", "/tmp/c/b.pdf.png", true).Succeeded());
    EXPECT_EQ(ReadAll("/tmp/c/b.pdf.metadata"),
              "title=Report (draft)\nauthor=Sample Press\npages=1\n");

    std::ofstream("/mnt/ext1/broken.pdf") << "%PDF-1.4 not really";
    std::ofstream("/mnt/ext1/broken.epub") << "PK not really";
    ASSERT_TRUE(Scan("/mnt/ext1/broken.pdf", "/tmp/c/broken.pdf.png").Succeeded());
    ASSERT_TRUE(Scan("/mnt/ext1/broken.epub", "/tmp/c/broken.epub.png").Succeeded());
    EXPECT_FALSE(qvtest::Exists("/tmp/c/broken.pdf.png"));
    EXPECT_FALSE(qvtest::Exists("/tmp/c/broken.pdf.png.part"));
    EXPECT_FALSE(qvtest::Exists("/tmp/c/broken.epub.png"));
    std::string log = ReadAll("/var/run/moorglass-host/scanner.log");
    EXPECT_TRUE(qvtest::Contains(log, "failed /mnt/ext1/broken.pdf")) << log;
}

TEST(Scanner, StartedOnceThenFedThroughItsQueue) {
    ::setenv("QV_SCANNER_IDLE_MS", "5000", 1);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(qvhost::WriteSampleBook(
            BookKind::kPdf, "/mnt/ext1/p" + std::to_string(i) + ".pdf", "P", 100, 100, i));
    }
    ASSERT_TRUE(qvhost::WriteSampleBook(BookKind::kPng, "/mnt/ext1/i.png", "I", 10, 10, 1));
    EXPECT_EQ(FindTaskByAppName("adobescanner.app"), -1);
    EXPECT_EQ(
        quorvel::utilities::RunAdobeScanner("/mnt/ext1/p0.pdf", "/tmp/q/p0.png", 50, 50, false), 0);
    int task = FindTaskByAppName("adobescanner.app");
    EXPECT_GT(task, 0);
    for (int i = 1; i < 3; ++i) {
        std::string n = std::to_string(i);
        EXPECT_EQ(quorvel::utilities::RunAdobeScanner("/mnt/ext1/p" + n + ".pdf",
                                                      "/tmp/q/p" + n + ".png", 50, 50, false),
                  0);
    }
    EXPECT_EQ(quorvel::utilities::RunAdobeScanner("/mnt/ext1/i.png", "/tmp/q/i.png", 40, 40, false),
              0);
    for (const char* cover : {"/tmp/q/p0.png", "/tmp/q/p1.png", "/tmp/q/p2.png", "/tmp/q/i.png"}) {
        EXPECT_TRUE(qvtest::WaitForFile(cover, 20s)) << cover;
    }
    EXPECT_EQ(FindTaskByAppName("adobescanner.app"), task) << "the running scanner took them all";
    EXPECT_TRUE(qvtest::Exists("/tmp/q/p2.metadata")) << "PDF books always get their metadata";
    EXPECT_FALSE(qvtest::Exists("/tmp/q/i.metadata"));
    EXPECT_EQ(PngSize("/tmp/q/i.png"), std::make_pair(40, 40));
    EXPECT_EQ(CloseTask(task, -1, 1), 0);
}

}  // namespace
