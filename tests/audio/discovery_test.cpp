// Books found in real files: M4B books through the audio engine of the device image, MP3 and
// Ogg albums in folders, MP3s in zip archives; and every file refused when there is no engine.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common_utilities/audio/audio_books_manager.h"
#include "log_capture.h"
#include "media_files.h"
#include "tagged_audio.h"

namespace {

using quorvel::audio::AudioBook;
using quorvel::audio::AudioBooksManager;
using tagtest::Tags;
using testing::ElementsAre;

const std::string kEngine = "/zelgrot/lib/libaudio-engine.so";
const std::string kDir = "/mnt/ext1/Books";

struct BookView {
    std::shared_ptr<AudioBook> book;
    std::vector<AudioBook::Chapter> chapters;
};

class DiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access(kEngine.c_str(), R_OK) != 0) GTEST_SKIP() << "no audio engine in the image";
        ::mkdir(kDir.c_str(), 0755);
    }

    static void Mkdir(const std::string& path) { ::mkdir(path.c_str(), 0755); }

    // Books by title, each with its chapters.
    std::vector<BookView> Books() {
        std::vector<BookView> result;
        for (auto& book : manager_.getAudioBooks(AudioBooksManager::OrderByTitle)) {
            result.push_back({book, manager_.getBookChapters(book->getId())});
        }
        return result;
    }

    static std::vector<std::string> Names(const std::vector<AudioBook::Chapter>& chapters) {
        std::vector<std::string> names;
        for (const auto& chapter : chapters) {
            names.push_back(std::to_string(chapter.no) + " " +
                            chapter.path.substr(chapter.path.rfind('/') + 1));
        }
        return names;
    }

    AudioBooksManager manager_;
};

TEST(DiscoveryWithoutEngineTest, EveryFileIsRefused) {
    ::unlink(kEngine.c_str());
    ::mkdir(kDir.c_str(), 0755);
    tagtest::MakeTaggedMp3(kDir + "/a.mp3", {"A", "B", "C", "", 1});
    AudioBooksManager manager;
    qvtest::LogCapture logs;
    EXPECT_EQ(manager.addAudioBookByPath(".mp3"), QV_FAILED);
    EXPECT_TRUE(logs.HasFragment(1, "Condition: \"filepath.size() <= 4\", return(\"QV_FAILED\")]"
                                    "Too short file path [.mp3]"));
    EXPECT_EQ(manager.addAudioBookByPath(kDir + "/a.mp3"), QV_FAILED);
    EXPECT_EQ(manager.addAudioBookByPath(kDir + "/a.m4b"), QV_FAILED);
    EXPECT_TRUE(logs.HasFragment(1, "Failed to dlopen libaudio-engine.so"));
    EXPECT_TRUE(logs.HasFragment(1, "Condition: \"player\", return(\"QV_FAILED\")]Can't create "
                                    "player"));
    manager.createMp3AudioBooks();
    EXPECT_TRUE(manager.getAudioBooks(AudioBooksManager::OrderByTitle).empty());
}

TEST_F(DiscoveryTest, M4bBooksTakeTheEnginesChaptersAndAreAddedOnce) {
    qvtest::MakeM4b(kDir + "/novel.m4b", 6, "Novel", "Writer",
                    {{0, 2500, "Opening"}, {2500, 6000, "Ending"}});
    qvtest::MakeM4b(kDir + "/short.M4A", 3, "Short", "Writer", {});
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/novel.m4b"), QV_OK);
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/novel.m4b"), QV_OK);
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/short.M4A"), QV_OK);
    EXPECT_EQ(manager_.addAudioBookByPath(kDir + "/none.m4b"), QV_FAILED);
    EXPECT_EQ(manager_.addAudioBookByPath(kDir + "/notes.txt"), QV_FAILED);

    auto books = Books();
    ASSERT_EQ(books.size(), 2u);
    const auto& novel = books[0];
    EXPECT_EQ(novel.book->getType(), AudioBook::M4bType);
    EXPECT_EQ(novel.book->getTitle(), "Novel");
    EXPECT_EQ(novel.book->getAuthor(), "Writer");
    EXPECT_EQ(novel.book->getDuration(), 6);
    ASSERT_EQ(novel.chapters.size(), 2u);
    EXPECT_EQ(novel.chapters[1].no, 2);
    EXPECT_EQ(novel.chapters[1].title, "Ending");
    EXPECT_EQ(novel.chapters[1].path, kDir + "/novel.m4b");
    EXPECT_EQ(novel.chapters[1].start_position, 2500);
    EXPECT_EQ(novel.chapters[1].end_position, 6000);

    // No chapters from the engine: one for the whole book.
    const auto& whole = books[1];
    ASSERT_EQ(whole.chapters.size(), 1u);
    EXPECT_EQ(whole.chapters[0].no, 1);
    EXPECT_EQ(whole.chapters[0].title, "Short");
    EXPECT_EQ(whole.chapters[0].end_position, whole.book->getDuration() * 1000);
}

TEST_F(DiscoveryTest, OneFileBringsItsAlbumFromTheFolderInTrackOrder) {
    Mkdir(kDir + "/Album");
    Mkdir(kDir + "/Album/sub");
    tagtest::MakeTaggedMp3(kDir + "/Album/x.mp3", {"Three", "Band", "Album", "Rock", 3});
    tagtest::MakeTaggedMp3(kDir + "/Album/y.MP3", {"One", "Band", "Album", "Rock", 1});
    tagtest::MakeTaggedMp3(kDir + "/Album/z.mp3", {"Two", "Band", "Album", "Rock", 2});
    tagtest::MakeTaggedMp3(kDir + "/Album/other.mp3", {"Else", "Band", "Other", "", 1});
    tagtest::MakeTaggedMp3(kDir + "/Album/sub/four.mp3", {"Four", "Band", "Album", "", 4});

    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/Album/x.mp3"), QV_OK);
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/Album/z.mp3"), QV_OK);  // already waiting
    manager_.createMp3AudioBooks();
    manager_.createMp3AudioBooks();  // nothing left to make

    auto books = Books();
    ASSERT_EQ(books.size(), 1u);
    EXPECT_EQ(books[0].book->getType(), AudioBook::Mp3Type);
    EXPECT_EQ(books[0].book->getTitle(), "Album");
    EXPECT_EQ(books[0].book->getAuthor(), "Band");
    EXPECT_EQ(books[0].book->getGenre(), "Rock");
    EXPECT_EQ(books[0].book->getDuration(), 3);
    EXPECT_THAT(Names(books[0].chapters), ElementsAre("1 y.MP3", "2 z.mp3", "3 x.mp3"));
    EXPECT_EQ(books[0].chapters[0].title, "One");
    EXPECT_EQ(books[0].chapters[0].end_position, 1000);

    // A file of a stored book is passed over; the subfolder's file makes a book of its own.
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/Album/y.MP3"), QV_OK);
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/Album/sub/four.mp3"), QV_OK);
    manager_.createMp3AudioBooks();
    books = Books();
    ASSERT_EQ(books.size(), 2u);
    EXPECT_THAT(Names(books[1].chapters), ElementsAre("4 four.mp3"));
}

TEST_F(DiscoveryTest, TrackNumbersAreKeptOnlyWhenDistinctAndPositive) {
    struct Case {
        std::string album;
        std::vector<unsigned> numbers;
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        {"Dup", {1, 1, 2}, {"1 a.mp3", "2 b.mp3", "3 c.mp3"}},
        {"Gaps", {7, 2, 4}, {"2 b.mp3", "4 c.mp3", "7 a.mp3"}},
        {"Zero", {2, 0, 1}, {"1 a.mp3", "2 b.mp3", "3 c.mp3"}},
    };
    for (const auto& c : cases) {
        Mkdir(kDir + "/" + c.album);
        const char* names[] = {"a.mp3", "b.mp3", "c.mp3"};
        for (size_t i = 0; i < 3; ++i) {
            tagtest::MakeTaggedMp3(kDir + "/" + c.album + "/" + names[i],
                                   {names[i], "Art", c.album, "", c.numbers[i]});
        }
        ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/" + c.album + "/a.mp3"), QV_OK);
    }
    manager_.createMp3AudioBooks();
    auto books = Books();
    ASSERT_EQ(books.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(books[i].book->getTitle(), cases[i].album);
        EXPECT_EQ(Names(books[i].chapters), cases[i].expected) << cases[i].album;
    }
}

TEST_F(DiscoveryTest, AlbumsJoinAcrossFoldersAndUntaggedFilesShareOneBook) {
    Mkdir(kDir + "/cd1");
    Mkdir(kDir + "/cd2");
    tagtest::MakeTaggedMp3(kDir + "/cd1/a.mp3", {"A", "Choir", "Mass", "", 1});
    tagtest::MakeTaggedOgg(kDir + "/cd2/b.ogg", {"B", "Choir", "Mass", "", 2});
    tagtest::MakeBareMp3(kDir + "/loose1.mp3");
    Mkdir(kDir + "/elsewhere");
    tagtest::MakeBareMp3(kDir + "/elsewhere/loose2.mp3");
    for (const char* file : {"/cd1/a.mp3", "/cd2/b.ogg", "/loose1.mp3", "/elsewhere/loose2.mp3"}) {
        ASSERT_EQ(manager_.addAudioBookByPath(kDir + file), QV_OK) << file;
    }
    manager_.createMp3AudioBooks();
    auto books = Books();
    ASSERT_EQ(books.size(), 2u);
    EXPECT_EQ(books[0].book->getTitle(), "Mass");
    EXPECT_THAT(Names(books[0].chapters), ElementsAre("1 a.mp3", "2 b.ogg"));
    // Without numbers the tracks go by path; without album tags the first one's title names
    // the book.
    EXPECT_EQ(books[1].book->getTitle(), "loose2");
    EXPECT_THAT(Names(books[1].chapters), ElementsAre("1 loose2.mp3", "2 loose1.mp3"));
}

TEST_F(DiscoveryTest, ArchivesBecomeOneBookEach) {
    tagtest::MakeTaggedMp3(kDir + "/1.mp3", {"First", "Reader", "A", "Drama", 1});
    tagtest::MakeTaggedMp3(kDir + "/2.mp3", {"Second", "Reader", "B", "Drama", 2});
    tagtest::MakeTaggedMp3(kDir + "/3.mp3", {"Third", "Other", "A", "", 3});
    tagtest::MakeBareMp3(kDir + "/bare.mp3");
    tagtest::MakeZip(kDir + "/mixed.zip",
                     {{"1.mp3", kDir + "/1.mp3"}, {"d/2.MP3", kDir + "/2.mp3"},
                      {"3.mp3", kDir + "/3.mp3"}, {"cover.jpg", kDir + "/bare.mp3"}});
    tagtest::MakeZip(kDir + "/Sonata.mp3.zip", {{"part.mp3", kDir + "/bare.mp3"}});
    tagtest::MakeZip(kDir + "/Book.zip", {{"part.mp3", kDir + "/bare.mp3"}});
    tagtest::MakeZip(kDir + "/pictures.zip", {{"cover.jpg", kDir + "/bare.mp3"}});
    for (const char* zip : {"/mixed.zip", "/Sonata.mp3.zip", "/Book.zip", "/pictures.zip"}) {
        ASSERT_EQ(manager_.addAudioBookByPath(kDir + zip), QV_OK) << zip;
    }
    EXPECT_EQ(manager_.addAudioBookByPath(kDir + "/none.zip"), QV_FAILED);
    manager_.createMp3AudioBooks();

    auto books = Books();
    ASSERT_EQ(books.size(), 3u);
    // "Book.zip" is shorter than the suffix cut from archive names: an empty title.
    EXPECT_EQ(books[0].book->getTitle(), "");
    EXPECT_EQ(books[1].book->getTitle(), "A, B");
    EXPECT_EQ(books[1].book->getAuthor(), "Reader, Other");
    EXPECT_EQ(books[1].book->getGenre(), "Drama");
    EXPECT_EQ(books[1].book->getType(), AudioBook::Mp3ZipType);
    ASSERT_EQ(books[1].chapters.size(), 3u);
    EXPECT_EQ(books[1].chapters[1].path, kDir + "/mixed.zip:#zip(d/2.MP3)");
    EXPECT_EQ(books[2].book->getTitle(), "Sonata");

    // Members of a stored book are passed over: no second book.
    ASSERT_EQ(manager_.addAudioBookByPath(kDir + "/mixed.zip"), QV_OK);
    manager_.createMp3AudioBooks();
    EXPECT_EQ(Books().size(), 3u);
}

}  // namespace
