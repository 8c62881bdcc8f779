// Covers of real books made at test time, through the cache, the scanner and the platform.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "book_files.h"
#include "child_process.h"
#include "common_utilities/cover_loader.h"
#include "common_utilities/serialization_utils.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::CoverLoader;
using quorvel::utilities::SmartBitmap;
using qvhost::BookKind;

const std::string kCache = "/mnt/ext1/system/cover_chache";

class CoverLoaderTest : public ::testing::Test {
protected:
    void SetUp() override { ::setenv("QV_SCANNER_IDLE_MS", "3000", 1); }

    // Asks until the scanner is done: the statuses seen, in order, without repeats.
    std::string AskUntilMade(CoverLoader& loader, const std::string& book, SmartBitmap* out) {
        std::string statuses;
        for (int i = 0; i < 400; ++i) {
            SmartBitmap cover;
            int status = loader.LoadCover(book, 80, 120, 0, &cover);
            char c = static_cast<char>('0' + status);
            if (statuses.empty() || statuses.back() != c) statuses += c;
            if (status != 1) {
                *out = cover;
                break;
            }
            // The loader keeps the book pending: the cache file decides when it is done.
            if (qvtest::Exists(loader.GetImagePath(book))) continue;
            std::this_thread::sleep_for(50ms);
        }
        return statuses;
    }
};

TEST_F(CoverLoaderTest, CachePathsFollowTheBooksPath) {
    CoverLoader loader;
    EXPECT_EQ(loader.GetImagePath("/mnt/ext1/Books/a.epub"), kCache + "/1/Books/a.epub.png");
    EXPECT_EQ(loader.GetImagePath("/mnt/ext1"), ".png") << "too short to have one";
    EXPECT_EQ(loader.GetImagePath("/home/a.epub"), ".png");
    EXPECT_EQ(loader.GetImagePath("/mnt/ext2/b.pdf"), kCache + "/0/b.pdf.png") << "no card serial";
    qvhost_set_card_serial("1A2b");
    qvhost_set_card_inserted(1);
    EXPECT_EQ(loader.GetImagePath("/mnt/ext2/b.pdf"), kCache + "/6699/b.pdf.png");
    EXPECT_EQ(loader.GetImagePathByHash("\x01\xab", 120), kCache + "/hashed/12001ab.png");
    EXPECT_EQ(loader.ImageWidth(), 165) << "from the theme";
    EXPECT_EQ(loader.ImageHeight(), 290);
}

TEST_F(CoverLoaderTest, ScannerMadeCoversComeFromTheCacheLater) {
    const std::pair<BookKind, std::string> books[] = {
        {BookKind::kPdf, "/mnt/ext1/Books/report.pdf"},
        {BookKind::kEpub, "/mnt/ext1/Books/novel.epub"},
        {BookKind::kDjvu, "/mnt/ext1/Books/scan.djvu"},
    };
    CoverLoader loader;
    for (const auto& book : books) {
        ASSERT_TRUE(qvhost::WriteSampleBook(book.first, book.second, "T", 330, 290, 5));
        SmartBitmap cover;
        EXPECT_EQ(AskUntilMade(loader, book.second, &cover), "10") << book.second;
        EXPECT_EQ(cover.GetSize(), std::make_pair(80, 70)) << "fitted into the box asked for";
        EXPECT_EQ(qvtest::PngSize(loader.GetImagePath(book.second)), std::make_pair(165, 145));
    }
    SmartBitmap again;
    EXPECT_EQ(loader.LoadCoverFromCache(books[0].second, 40, 40, 0, &again), 0);
    EXPECT_EQ(again.GetSize(), std::make_pair(40, 35));
}

TEST_F(CoverLoaderTest, PicturesAndFictionBooksAreTheirOwnCovers) {
    CoverLoader loader;
    ASSERT_TRUE(
        qvhost::WriteSampleBook(BookKind::kPng, "/mnt/ext1/Pictures/wide.png", "", 330, 290, 1));
    ASSERT_TRUE(
        qvhost::WriteSampleBook(BookKind::kJpeg, "/mnt/ext1/Pictures/small.jpg", "", 20, 40, 2));
    SmartBitmap wide, small;
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/Pictures/wide.png", 400, 400, 0, &wide), 0);
    EXPECT_EQ(qvtest::PngSize(kCache + "/1/Pictures/wide.png.png"), std::make_pair(165, 145));
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/Pictures/small.jpg", 400, 400, 0, &small), 0);
    EXPECT_EQ(qvtest::PngSize(kCache + "/1/Pictures/small.jpg.png"), std::make_pair(145, 290))
        << "small covers are scaled up";

    // A FictionBook with its cover inside, as Base64.
    qvhost::WriteSolidPng("/tmp/cover.png", 60, 90, 0x336699);
    auto base64 = qvtest::RunProgram({"base64", "/tmp/cover.png"});
    ::mkdir("/mnt/ext1/Books", 0755);
    std::ofstream("/mnt/ext1/Books/tale.fb2")
        << "<?xml version=\"1.0\"?><FictionBook xmlns:l=\"http://www.w3.org/1999/xlink\">"
           "<description><title-info><coverpage><image l:href=\"#c.png\"/></coverpage>"
           "</title-info></description><body/><binary id=\"c.png\" content-type=\"image/png\">"
        << base64.output << "</binary></FictionBook>";
    SmartBitmap tale;
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/Books/tale.fb2", 100, 100, 0, &tale), 0);
    EXPECT_EQ(qvtest::PngSize(kCache + "/1/Books/tale.fb2.png"), std::make_pair(165, 248));
    EXPECT_EQ(FindTaskByAppName("adobescanner.app"), -1) << "nothing here needs the scanner";
}

TEST_F(CoverLoaderTest, WhatHasNoCover) {
    CoverLoader loader;
    std::ofstream("/mnt/ext1/broken.jpg") << "not a picture";
    std::ofstream("/mnt/ext1/notes.txt") << "text";
    std::ofstream("/mnt/ext1/plain.fb2") << "<FictionBook/>";
    std::ofstream("/mnt/ext1/song.mp3") << "ID3";
    for (const char* book : {"/mnt/ext1/broken.jpg", "/mnt/ext1/notes.txt", "/mnt/ext1/plain.fb2",
                             "/mnt/ext1/song.mp3", "/mnt/ext1/missing.png", "/mnt/ext1/noext"}) {
        SmartBitmap cover;
        EXPECT_EQ(loader.LoadCover(book, 10, 10, 0, &cover), 2) << book;
        EXPECT_TRUE(cover.isEmpty());
        EXPECT_FALSE(qvtest::Exists(loader.GetImagePath(book))) << book;
    }
    SmartBitmap cover;
    EXPECT_EQ(loader.LoadCoverFromCache("/mnt/ext1/notes.txt", 10, 10, 0, &cover), 2);
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/notes.txt", 0, 10, 0, &cover), 3);
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/notes.txt", 10, 10, 0, nullptr), 3);
    SmartBitmap full(4, 4);
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/notes.txt", 10, 10, 0, &full), 3) << "out must be empty";
    EXPECT_EQ(loader.LoadCoverByHashFromCache("h", 1, 10, 10, 0, &cover), 2);
}

TEST_F(CoverLoaderTest, PendingBooksAreNotHandedOverTwice) {
    std::ofstream("/mnt/ext1/broken.pdf") << "%PDF-1.4 damaged";
    CoverLoader loader;
    SmartBitmap cover;
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/broken.pdf", 10, 10, 0, &cover), 1);
    int scanner = FindTaskByAppName("adobescanner.app");
    ASSERT_GT(scanner, 0);
    auto scanner_log = [] {
        std::ifstream in("/var/run/moorglass-host/scanner.log");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    };
    for (int i = 0; i < 400 && scanner_log().empty(); ++i)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(loader.LoadCover("/mnt/ext1/broken.pdf", 10, 10, 0, &cover), 1)
        << "a book the scanner failed on stays pending";
    EXPECT_EQ(FindTaskByAppName("adobescanner.app"), scanner);
    EXPECT_EQ(scanner_log(), "failed /mnt/ext1/broken.pdf\n");

    // Outside the storages there is no cache: a picture is fitted from memory, and a book that
    // would need the scanner has nowhere for it to write.
    ASSERT_TRUE(qvhost::WriteSampleBook(BookKind::kPng, "/tmp/outside.png", "", 30, 30, 1));
    std::ofstream("/tmp/outside.pdf") << "%PDF";
    SmartBitmap outside, pdf;
    EXPECT_EQ(loader.LoadCover("/tmp/outside.png", 10, 20, 0, &outside), 0);
    EXPECT_EQ(outside.GetSize(), std::make_pair(10, 20));
    EXPECT_EQ(loader.LoadCover("/tmp/outside.pdf", 10, 20, 0, &pdf), 2);
    EXPECT_FALSE(qvtest::Exists(".png"));
}

TEST_F(CoverLoaderTest, CardCoversLiveUnderTheCardsSerialAndForceReloadRemakes) {
    qvhost_set_card_serial("ff");
    qvhost_set_card_inserted(1);
    ASSERT_TRUE(qvhost::WriteSampleBook(BookKind::kPng, "/mnt/ext2/p.png", "", 100, 50, 1));
    CoverLoader loader;
    SmartBitmap cover;
    EXPECT_EQ(loader.LoadCover("/mnt/ext2/p.png", 50, 50, 0, &cover), 0);
    EXPECT_EQ(qvtest::PngSize(kCache + "/255/p.png.png"), std::make_pair(165, 83));

    // The book changes; the cache keeps the old cover until a forced reload.
    ASSERT_TRUE(qvhost::WriteSampleBook(BookKind::kPng, "/mnt/ext2/p.png", "", 50, 100, 1));
    SmartBitmap old_cover, new_cover;
    EXPECT_EQ(loader.LoadCover("/mnt/ext2/p.png", 50, 50, 0, &old_cover), 0);
    EXPECT_EQ(old_cover.GetSize(), std::make_pair(50, 25));
    EXPECT_EQ(loader.LoadCoverForceReload("/mnt/ext2/p.png", 50, 50, 0, &new_cover), 0);
    EXPECT_EQ(new_cover.GetSize(), std::make_pair(25, 50));
    EXPECT_EQ(qvtest::PngSize(kCache + "/255/p.png.png"), std::make_pair(145, 290));
}

}  // namespace
