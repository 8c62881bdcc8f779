// Tags read from real files made at test time: MP3s with ID3v2 and ID3v1, Ogg Vorbis, members
// of zip archives small and large, and the caches that spare the forward-only zip reader.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "common_utilities/media_library_manager.h"
#include "common_utilities/tag_io_stream.h"
#include "tagged_audio.h"

namespace {

using quorvel::utilities::MediaLibraryManager;
using Track = MediaLibraryManager::Track;
using tagtest::Tags;

const std::string kDir = "/mnt/ext1/Music";

Track Read(const std::string& path) {
    Track track(path.c_str(), "");
    MediaLibraryManager::getFileTags(track);
    return track;
}

class TagReadingTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::mkdir(kDir.c_str(), 0755);
        MediaLibraryManager::encoding_ = "1251";
    }
};

TEST_F(TagReadingTest, ReadsTagsAndLengthOfMp3AndOgg) {
    tagtest::MakeTaggedMp3(kDir + "/song.mp3", {"Жара", "Quartet", "Rain", "Jazz", 3}, 2);
    tagtest::MakeTaggedOgg(kDir + "/song.ogg", {"Ogg title", "Band", "Disc", "Rock", 7}, 2);

    Track mp3 = Read(kDir + "/song.mp3");
    EXPECT_TRUE(mp3.tags_read);
    EXPECT_EQ(mp3.title, "Жара");  // valid UTF-8 is left alone
    EXPECT_EQ(mp3.artist, "Quartet");
    EXPECT_EQ(mp3.album, "Rain");
    EXPECT_EQ(mp3.genre, "Jazz");
    EXPECT_EQ(mp3.track_no, 3);
    EXPECT_EQ(mp3.duration, 2);

    Track ogg = Read(kDir + "/song.ogg");
    EXPECT_TRUE(ogg.tags_read);
    EXPECT_EQ(ogg.title, "Ogg title");
    EXPECT_EQ(ogg.artist, "Band");
    EXPECT_EQ(ogg.track_no, 7);
    EXPECT_EQ(ogg.duration, 2);
}

TEST_F(TagReadingTest, TitleFallsBackToTheFileNameAndUnreadableFilesStayUntouched) {
    for (const char* name : {"01 Intro.mp3", "a.b.mp3", "noext"}) {
        tagtest::MakeBareMp3(kDir + "/" + name);
    }
    EXPECT_EQ(Read(kDir + "/01 Intro.mp3").title, "01 Intro");
    EXPECT_EQ(Read(kDir + "/a.b.mp3").title, "a.b");

    Track missing(std::string(kDir + "/none.mp3").c_str(), "kept");
    missing.artist = "kept too";
    MediaLibraryManager::getFileTags(missing);
    EXPECT_FALSE(missing.tags_read);
    EXPECT_EQ(missing.title, "kept");
    EXPECT_EQ(missing.artist, "kept too");

    // The zip form with an empty part is a plain path, which does not exist.
    Track empty_entry(std::string(kDir + "/x.zip:#zip()").c_str(), "");
    MediaLibraryManager::getFileTags(empty_entry);
    EXPECT_FALSE(empty_entry.tags_read);
}

TEST_F(TagReadingTest, ControlBytesAndEightBitTextGoThroughTheCodePage) {
    // An ID3v1 title with a control byte is not taken for text and goes through the code page;
    // a clean artist beside it is left as read.
    const std::string path = kDir + "/old.mp3";
    tagtest::MakeBareMp3(path);
    tagtest::AppendId3v1(path, "A\x01", "Plain");
    Track converted = Read(path);
    EXPECT_EQ(converted.title, "A\x01");  // ASCII maps to itself in cp1251
    EXPECT_EQ(converted.artist, "Plain");

    // With a code page that can't be used, the conversion yields nothing: this shows which
    // texts it was applied to.
    MediaLibraryManager::encoding_ = "no-such-code-page";
    Track failed = Read(path);
    EXPECT_EQ(failed.title, "");
    EXPECT_EQ(failed.artist, "Plain");

    // Still with the unusable code page: a tab is text, DEL is a control byte.
    tagtest::MakeTaggedMp3(kDir + "/tab.mp3", {"A\tB", "DEL\x7f", "", "", 0});
    Track tab = Read(kDir + "/tab.mp3");
    EXPECT_EQ(tab.title, "A\tB");
    EXPECT_EQ(tab.artist, "");
}

TEST_F(TagReadingTest, ReadsMembersOfSmallAndLargeArchives) {
    tagtest::MakeTaggedMp3(kDir + "/small.mp3", {"Small", "Zipper", "Zipped", "", 1});
    tagtest::MakeBareMp3(kDir + "/untitled.mp3");
    // Long enough to pass both caches: tags at the head and an ID3v1 block at the tail.
    tagtest::MakeTaggedMp3(kDir + "/large.mp3", {"Large", "Zipper", "Zipped", "", 2}, 300);
    tagtest::AppendId3v1(kDir + "/large.mp3", "Large", "Zipper");
    struct stat st {};
    ASSERT_EQ(::stat((kDir + "/large.mp3").c_str(), &st), 0);
    ASSERT_GT(st.st_size, 1150977);
    const std::string zip = kDir + "/book.zip";
    tagtest::MakeZip(zip, {{"small.mp3", kDir + "/small.mp3"},
                           {"d/x.mp3", kDir + "/untitled.mp3"},
                           {"big/large.mp3", kDir + "/large.mp3"}});

    Track small = Read(zip + ":#zip(small.mp3)");
    EXPECT_TRUE(small.tags_read);
    EXPECT_EQ(small.title, "Small");
    EXPECT_EQ(small.album, "Zipped");

    Track untitled = Read(zip + ":#zip(d/x.mp3)");
    EXPECT_TRUE(untitled.tags_read);
    EXPECT_EQ(untitled.title, "x");  // from the member's name, not the archive's

    Track large = Read(zip + ":#zip(big/large.mp3)");
    EXPECT_TRUE(large.tags_read);
    EXPECT_EQ(large.title, "Large");
    EXPECT_EQ(large.track_no, 2);
    EXPECT_NEAR(large.duration, 300, 1);

    EXPECT_FALSE(Read(zip + ":#zip(none.mp3)").tags_read);
    EXPECT_FALSE(Read(kDir + "/none.zip:#zip(small.mp3)").tags_read);
}

class TagIOStreamTest : public TagReadingTest {
protected:
    // An archive with one member of `size` bytes of the pattern.
    std::unique_ptr<TagIOStream> Member(size_t size) {
        const std::string file = kDir + "/pattern.bin";
        tagtest::WritePattern(file, size);
        const std::string zip = kDir + "/pattern" + std::to_string(size) + ".zip";
        tagtest::MakeZip(zip, {{"p.bin", file}});
        auto stream = std::make_unique<TagIOStream>(zip, "p.bin");
        EXPECT_TRUE(stream->isOpen());
        EXPECT_EQ(stream->length(), static_cast<long>(size));
        return stream;
    }

    static void ExpectPattern(const TagLib::ByteVector& bytes, size_t from, size_t count) {
        ASSERT_EQ(bytes.size(), count);
        for (size_t i = 0; i < count; ++i) {
            ASSERT_EQ(bytes[static_cast<unsigned>(i)], tagtest::PatternByte(from + i)) << from + i;
        }
    }
};

TEST_F(TagIOStreamTest, CachesOnlyMembersLargerThanBothBuffers) {
    auto uncached = Member(1150976);
    EXPECT_FALSE(uncached->seek_cache(-128, TagLib::IOStream::End));
    uncached->seek(-128, TagLib::IOStream::End);
    EXPECT_EQ(uncached->tell(), 1150976 - 128);
    ExpectPattern(uncached->readBlock(128), 1150976 - 128, 128);

    auto cached = Member(1150977);
    EXPECT_TRUE(cached->seek_cache(-128, TagLib::IOStream::End));
    EXPECT_EQ(cached->tell(), 1150977 - 128);
    ExpectPattern(cached->readBlock(128), 1150977 - 128, 128);
    EXPECT_TRUE(cached->readBlock(16).isEmpty());  // at the end
}

TEST_F(TagIOStreamTest, ReadsAnywhereAcrossCachesAndTheForwardOnlyReader) {
    const size_t size = 1500000;
    auto stream = Member(size);
    using P = TagLib::IOStream;

    // Past the tail cache's start by one: the zip reader goes there.
    stream->seek(-102401, P::End);
    EXPECT_FALSE(stream->seek_cache(-102401, P::End));
    EXPECT_EQ(stream->tell(), static_cast<long>(size - 102401));
    ExpectPattern(stream->readBlock(10), size - 102401, 10);

    // Back to the head: served from the cache, then across its end into the reader.
    stream->seek(1048570, P::Beginning);
    EXPECT_EQ(stream->tell(), 1048570);
    ExpectPattern(stream->readBlock(100), 1048570, 100);
    EXPECT_EQ(stream->tell(), 1048670);

    // A relative move from inside the head into the middle lands where the caller stood plus
    // the offset, not where the zip reader happened to be.
    stream->seek(100, P::Beginning);
    ExpectPattern(stream->readBlock(4), 100, 4);
    stream->seek(1200000, P::Current);
    EXPECT_EQ(stream->tell(), 1200104);
    ExpectPattern(stream->readBlock(8), 1200104, 8);

    // Backwards on the reader restarts the member.
    stream->seek(1100000, P::Beginning);
    ExpectPattern(stream->readBlock(8), 1100000, 8);
    stream->seek(-16, P::Current);
    ExpectPattern(stream->readBlock(8), 1099992, 8);

    // A damaged tag asking for far more than there is gets what is left.
    stream->seek(size - 50, P::Beginning);
    ExpectPattern(stream->readBlock(0x7fffffff), size - 50, 50);
    EXPECT_TRUE(stream->readOnly());
    EXPECT_STREQ(stream->name(), "p.bin");
}

TEST_F(TagIOStreamTest, MissingMemberOrArchiveIsNotOpen) {
    tagtest::MakeBareMp3(kDir + "/a.mp3");
    tagtest::MakeZip(kDir + "/a.zip", {{"a.mp3", kDir + "/a.mp3"}});
    EXPECT_FALSE(std::make_unique<TagIOStream>(kDir + "/a.zip", "b.mp3")->isOpen());
    EXPECT_FALSE(std::make_unique<TagIOStream>(kDir + "/b.zip", "a.mp3")->isOpen());
}

}  // namespace
