// The book kinds: how a place in the whole book maps to a track and a place in it and back, the
// text of a saved place, and the files a book stands for on the device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common_utilities/audio/audio_book.h"
#include "moorglass.h"

namespace {

using quorvel::audio::AudioBook;
using Chapter = AudioBook::Chapter;
using Position = AudioBook::PlayPosition;

Chapter MakeChapter(int no, const std::string& path, int start_ms, int end_ms,
                    const std::string& title = "") {
    Chapter chapter;
    chapter.no = no;
    chapter.path = path;
    chapter.title = title;
    chapter.start_position = start_ms;
    chapter.end_position = end_ms;
    return chapter;
}

std::shared_ptr<AudioBook> Book(AudioBook::AudioBookType type, int duration,
                                std::vector<Chapter> chapters) {
    auto book = AudioBook::factory(type);
    book->setDuration(duration);
    book->setChapters(std::move(chapters));
    return book;
}

// Three files of 100, 200 and 300 seconds: PREFIX01.mp3SUFFIX and so on.
std::shared_ptr<AudioBook> ThreeFiles(AudioBook::AudioBookType type, const std::string& prefix,
                                      const std::string& suffix = "") {
    return Book(type, 600,
                {MakeChapter(1, prefix + "01.mp3" + suffix, 0, 100000),
                 MakeChapter(2, prefix + "02.mp3" + suffix, 0, 200000),
                 MakeChapter(3, prefix + "03.mp3" + suffix, 0, 300000)});
}

// Two chapters of one minute in one file, with a gap of 10 s after the second.
std::shared_ptr<AudioBook> M4b() {
    return Book(AudioBook::M4bType, 130,
                {MakeChapter(1, "/mnt/ext1/b.m4b", 0, 60000, "One"),
                 MakeChapter(2, "/mnt/ext1/b.m4b", 70000, 130000, "Two")});
}

void ExpectPlace(const Position& place, int position, int track) {
    EXPECT_EQ(position, place.position);
    EXPECT_EQ(track, place.track);
}

void WriteFile(const std::string& path, size_t size) {
    mg_buildpath(path.c_str());
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
}

TEST(AudioBook, FactoryAndPlainRecord) {
    EXPECT_EQ(nullptr, AudioBook::factory(static_cast<AudioBook::AudioBookType>(0)));
    EXPECT_EQ(nullptr, AudioBook::factory(static_cast<AudioBook::AudioBookType>(5)));
    for (auto type :
         {AudioBook::EmptyType, AudioBook::M4bType, AudioBook::Mp3Type, AudioBook::Mp3ZipType}) {
        auto book = AudioBook::factory(type);
        ASSERT_NE(nullptr, book);
        EXPECT_EQ(type, book->getType());
        EXPECT_EQ(0, book->getId());
        EXPECT_TRUE(book->getChapters().empty());
        EXPECT_EQ("", book->getState().read_position);
    }
    auto book = ThreeFiles(AudioBook::Mp3Type, "/a/");
    book->addChapter(MakeChapter(4, "/a/04.mp3", 0, 5000));
    EXPECT_EQ(600, book->getDuration());  // adding a chapter leaves the duration alone
    EXPECT_EQ(4, book->getChapter(3).no);
    EXPECT_EQ(-1, book->getChapter(4).no);
    EXPECT_EQ("", book->getChapter(4).path);
    EXPECT_EQ(200, book->getChapterDuration(1));
    EXPECT_EQ(0, book->getChapterDuration(4));
    // Milliseconds are truncated, not rounded.
    EXPECT_EQ(1,
              Book(AudioBook::Mp3Type, 0, {MakeChapter(1, "/x", 0, 1999)})->getChapterDuration(0));
}

TEST(AudioBook, M4bChapterWalkAtEveryBoundary) {
    auto book = M4b();
    EXPECT_EQ(0, book->getChapterIndex(0, 0));
    EXPECT_EQ(0, book->getChapterIndex(0, 59));
    EXPECT_EQ(1, book->getChapterIndex(0, 60));   // in the gap: the next chapter
    EXPECT_EQ(1, book->getChapterIndex(0, 70));   // exactly on the boundary
    EXPECT_EQ(1, book->getChapterIndex(0, 129));  // last second of the last chapter
    EXPECT_EQ(2, book->getChapterIndex(0, 130));  // past the end: one past the last index
    EXPECT_EQ(0, book->getChapterIndex(1, 100));  // there is only track 0

    ExpectPlace(book->getChapterPlayInfo(1), 70, 0);
    ExpectPlace(book->getChapterPlayInfo(2), 0, 0);
    EXPECT_EQ(95, book->getPositionInBook(0, 95));
    EXPECT_EQ(0, book->getPositionInBook(1, 95));
    ExpectPlace(book->getPositionInTrack(129), 129, 0);
    ExpectPlace(book->getPositionInTrack(130), 0, 0);
    ExpectPlace(book->getPositionInTrack(-1), 0, 0);

    EXPECT_EQ("/mnt/ext1/b.m4b:#loc(95)", book->positionToLocation(0, 95));
    EXPECT_EQ("", book->positionToLocation(1, 95));
    ExpectPlace(book->locationToPosition("/mnt/ext1/b.m4b:#loc(95)"), 95, 0);
    // The path is not compared, and the last marker counts.
    ExpectPlace(book->locationToPosition("/elsewhere.m4b:#loc(7)"), 7, 0);
    ExpectPlace(book->locationToPosition("/a:#loc(3)/b:#loc(12)"), 12, 0);
    ExpectPlace(book->locationToPosition("/mnt/ext1/b.m4b"), 0, 0);

    auto playlist = book->getBookPlaylist();
    ASSERT_EQ(1u, playlist.size());
    EXPECT_EQ("/mnt/ext1/b.m4b", playlist[0].path);
    EXPECT_EQ("One", playlist[0].title);
    EXPECT_EQ(1, playlist[0].track_no);
    EXPECT_EQ(130, playlist[0].duration);

    auto minute = Book(AudioBook::M4bType, 60, {MakeChapter(1, "/b.m4b", 0, 60000)});
    EXPECT_FLOAT_EQ(0.5f, minute->getBookPercents(0, 30));
}

TEST(AudioBook, Mp3ConversionsWalkTheFilesInTurn) {
    auto book = ThreeFiles(AudioBook::Mp3Type, "/mnt/ext1/a/");
    EXPECT_EQ(305, book->getPositionInBook(2, 5));
    EXPECT_EQ(0, book->getPositionInBook(3, 5));
    EXPECT_EQ(0, book->getPositionInBook(-1, 5));
    ExpectPlace(book->getPositionInTrack(305), 5, 2);
    ExpectPlace(book->getPositionInTrack(99), 99, 0);
    ExpectPlace(book->getPositionInTrack(100), 0, 1);    // exactly on a boundary
    ExpectPlace(book->getPositionInTrack(599), 299, 2);  // last second of the last chapter
    ExpectPlace(book->getPositionInTrack(600), 0, 0);
    ExpectPlace(book->getPositionInTrack(-5), 0, 0);
    for (int position : {0, 99, 100, 299, 300, 599}) {
        const Position place = book->getPositionInTrack(position);
        EXPECT_EQ(position, book->getPositionInBook(place.track, place.position)) << position;
    }
    EXPECT_EQ(2, book->getChapterIndex(2, 999));
    EXPECT_EQ(0, book->getChapterIndex(3, 0));
    ExpectPlace(book->getChapterPlayInfo(2), 0, 2);
    ExpectPlace(book->getChapterPlayInfo(3), 0, 0);
    EXPECT_FLOAT_EQ(0.5f, book->getBookPercents(2, 0));

    const std::string location = book->positionToLocation(1, 42);
    EXPECT_EQ("/mnt/ext1/a/02.mp3:#loc(42)", location);
    ExpectPlace(book->locationToPosition(location), 42, 1);
    EXPECT_EQ("", book->positionToLocation(3, 1));
    ExpectPlace(book->locationToPosition("/mnt/ext1/a/09.mp3:#loc(42)"), 0, 0);
    ExpectPlace(book->locationToPosition("/mnt/ext1/a/02.mp3:#loc("), 0, 1);
    ExpectPlace(book->locationToPosition("/mnt/ext1/a/02.mp3"), 0, 0);

    // Chapters shorter than the book: the place they don't reach is the start.
    auto short_book = ThreeFiles(AudioBook::Mp3Type, "/a/");
    short_book->setDuration(700);
    ExpectPlace(short_book->getPositionInTrack(650), 0, 0);
}

TEST(AudioBook, Mp3PlaylistFollowsChapterNumbers) {
    auto book =
        Book(AudioBook::Mp3Type, 60,
             {MakeChapter(3, "/c.mp3", 0, 30000, "C"), MakeChapter(1, "/a.mp3", 0, 10000, "A"),
              MakeChapter(1, "/b.mp3", 0, 20000, "B"), MakeChapter(-2, "/n.mp3", 0, 1000)});
    auto playlist = book->getBookPlaylist();
    ASSERT_EQ(2u, playlist.size());
    EXPECT_EQ("/a.mp3", playlist[0].path);
    EXPECT_EQ("A", playlist[0].title);
    EXPECT_EQ(10, playlist[0].duration);
    EXPECT_EQ(1, playlist[0].track_no);
    EXPECT_EQ("/c.mp3", playlist[1].path);
    EXPECT_EQ(3, playlist[1].track_no);
    // A huge chapter number costs nothing.
    book->addChapter(MakeChapter(2000000000, "/z.mp3", 0, 1000));
    EXPECT_EQ(3u, book->getBookPlaylist().size());
}

TEST(AudioBook, ZipBookIsOneArchiveOnTheDevice) {
    const std::string archive = "/mnt/ext1/Books/b.mp3.zip";
    WriteFile(archive, 5000);
    auto book = ThreeFiles(AudioBook::Mp3ZipType, archive + ":#zip(d/", ")");
    EXPECT_EQ(archive, book->getBookPath());
    EXPECT_EQ(5000, book->getBookSize());
    const std::string location = book->positionToLocation(2, 7);
    EXPECT_EQ(archive + ":#zip(d/03.mp3):#loc(7)", location);
    ExpectPlace(book->locationToPosition(location), 7, 2);
    EXPECT_EQ(307, book->getPositionInBook(2, 7));
    auto plain = Book(AudioBook::Mp3ZipType, 10, {MakeChapter(1, "/mnt/ext1/x.mp3", 0, 10000)});
    EXPECT_EQ("/mnt/ext1/x.mp3", plain->getBookPath());

    EXPECT_TRUE(book->removeBookFromDevice());
    EXPECT_NE(0, ::access(archive.c_str(), F_OK));
    EXPECT_EQ(0, ::access("/mnt/ext1/Books", F_OK));
    EXPECT_EQ(0, book->getBookSize());
}

TEST(AudioBook, FilesOnTheDeviceOfMp3AndM4bBooks) {
    WriteFile("/mnt/ext1/a/01.mp3", 100);
    WriteFile("/mnt/ext1/a/03.mp3", 300);  // 02 is missing and counts 0
    auto mp3 = ThreeFiles(AudioBook::Mp3Type, "/mnt/ext1/a/");
    EXPECT_EQ("/mnt/ext1/a/01.mp3", mp3->getBookPath());
    EXPECT_EQ(400, mp3->getBookSize());
    EXPECT_TRUE(mp3->removeBookFromDevice());
    EXPECT_NE(0, ::access("/mnt/ext1/a/01.mp3", F_OK));
    EXPECT_NE(0, ::access("/mnt/ext1/a/03.mp3", F_OK));
    EXPECT_EQ(0, ::access("/mnt/ext1/a", F_OK));

    WriteFile("/mnt/ext1/b.m4b", 1234);
    auto m4b = M4b();
    EXPECT_EQ(1234, m4b->getBookSize());
    EXPECT_TRUE(m4b->removeBookFromDevice());
    EXPECT_EQ(0, m4b->getBookSize());
}

// Books without chapters, and the book without content, answer nothing everywhere.
TEST(AudioBook, EmptyBooksConvertToNothing) {
    for (auto type :
         {AudioBook::EmptyType, AudioBook::M4bType, AudioBook::Mp3Type, AudioBook::Mp3ZipType}) {
        auto book = Book(type, 100, {});
        SCOPED_TRACE(type);
        EXPECT_TRUE(book->getBookPlaylist().empty());
        EXPECT_EQ("", book->getBookPath());
        EXPECT_EQ(0, book->getBookSize());
        EXPECT_EQ(0, book->getPositionInBook(0, 10));
        EXPECT_EQ("", book->positionToLocation(0, 10));
        ExpectPlace(book->locationToPosition("/x:#loc(10)"), 0, 0);
        ExpectPlace(book->getChapterPlayInfo(0), 0, 0);
        EXPECT_EQ(0, book->getChapterIndex(0, 10));
        EXPECT_TRUE(book->removeBookFromDevice());
        EXPECT_EQ(0.0f, book->getBookPercents(0, 10));
    }
    // The book without content places nothing, also with chapters and a duration.
    auto empty = Book(AudioBook::EmptyType, 100, {MakeChapter(1, "/x.mp3", 0, 100000)});
    ExpectPlace(empty->getPositionInTrack(50), 0, 0);
    EXPECT_TRUE(std::isnan(Book(AudioBook::Mp3Type, 0, {})->getBookPercents(0, 0)));
}

}  // namespace
