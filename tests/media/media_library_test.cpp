// The track store and its queries on a real library file: what is stored, what each list shows,
// how the storages present limit them, and how text is ordered by the interface language.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/media_library_manager.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "moorglass_host.h"
#include "mount_over.h"

namespace {

using namespace mediatest;
using quorvel::utilities::MediaLibraryManager;
using quorvel::utilities::Sqlite;
using qvtest::LogCapture;
using qvtest::PidLine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Manager = MediaLibraryManager;
using Track = MediaLibraryManager::Track;
using TrackGroup = MediaLibraryManager::TrackGroup;

const std::string kLibrary = "/mnt/ext1/system/player-2/player-2.db";
const std::string kPrepareFailed = PidLine("Condition: \"!st.get()\", return(\"result\")]");

struct Tags {
    Tags(std::string title = "", std::string artist = "", std::string album = "",
         std::string genre = "", int track_no = 0, int duration = 0)
        : title(std::move(title)),
          artist(std::move(artist)),
          album(std::move(album)),
          genre(std::move(genre)),
          track_no(track_no),
          duration(duration) {}

    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    int track_no;
    int duration;
};

Track MakeTrack(const std::string& path, const Tags& tags) {
    Track track(path.c_str(), tags.title.c_str());
    track.artist = tags.artist;
    track.album = tags.album;
    track.genre = tags.genre;
    track.track_no = tags.track_no;
    track.duration = tags.duration;
    return track;
}

std::vector<std::string> Titles(const std::vector<Track>& tracks) {
    std::vector<std::string> titles;
    for (const auto& track : tracks)
        titles.push_back(track.title);
    return titles;
}

// "name=count" for each group, in order.
std::vector<std::string> Groups(const std::vector<TrackGroup>& groups) {
    std::vector<std::string> entries;
    for (const auto& group : groups)
        entries.push_back(group.name + "=" + std::to_string(group.count));
    return entries;
}

void MakeDirectory(const std::string& path) {
    mg_buildpath((path + "/x").c_str());
}

// The interface language as the platform would report it after the settings changed.
void UseLanguage(const std::string& language) {
    SetGlobal("language", language);
    qvhost_reload_state();
}

class MediaLibrary : public testing::Test {
protected:
    void Add(const std::string& path, const Tags& tags = {}) {
        ASSERT_EQ(QV_OK, library->addTrack(MakeTrack(path, tags))) << path;
    }
    void Remake() { library = std::make_unique<Manager>(); }

    std::unique_ptr<Manager> library = std::make_unique<Manager>();
};

TEST_F(MediaLibrary, ANewLibraryHasItsSeedRowsAndNoTracks) {
    EXPECT_THAT(Query(kLibrary, "SELECT id || ':' || name FROM storages"),
                ElementsAre("1:InternalStorage"));
    EXPECT_EQ("1", QueryOne(kLibrary, "SELECT id FROM version"));
    EXPECT_EQ("0", QueryOne(kLibrary, "SELECT count(*) FROM tracks"));
    EXPECT_THAT(library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false), IsEmpty());
    EXPECT_THAT(library->getTrackGroups(Manager::GroupArtist, Manager::Ascending), IsEmpty());
}

TEST_F(MediaLibrary, AddTrackStoresTheRecordAndSplitsItsPath) {
    Track song("/mnt/ext1/Music/Rock/song.mp3", "Пьеса №1");
    song.track_no = 3;
    song.duration = 215;
    song.size = 7340032;
    song.fast_hash = "0123abcd";
    const auto before = static_cast<int32_t>(std::time(nullptr));
    ASSERT_EQ(QV_OK, library->addTrack(song));
    const auto after = static_cast<int32_t>(std::time(nullptr));
    EXPECT_EQ(0, song.id);  // the caller's record is a copy that was not stored

    Track found = library->getTrackByPath("/mnt/ext1/Music/Rock/song.mp3");
    EXPECT_GT(found.id, 0);
    EXPECT_EQ("/mnt/ext1/Music/Rock/song.mp3", found.path);
    EXPECT_EQ("Пьеса №1", found.title);
    EXPECT_EQ(3, found.track_no);
    EXPECT_EQ(215, found.duration);
    EXPECT_EQ(7340032, found.size);
    EXPECT_EQ("0123abcd", found.fast_hash);
    EXPECT_GE(found.timestamp, before);
    EXPECT_LE(found.timestamp, after);
    EXPECT_FALSE(found.tags_read);
    // Unknown tags are empty texts, not NULL: the empty group depends on it.
    EXPECT_EQ("1", QueryOne(kLibrary,
                            "SELECT count(*) FROM tracks WHERE artist = '' AND album = '' AND "
                            "genre = '' AND filename = 'song.mp3'"));

    // The same file twice is two tracks in one folder: keeping it single is the caller's part.
    ASSERT_EQ(QV_OK, library->addTrack(song));
    EXPECT_EQ("2", QueryOne(kLibrary, "SELECT count(*) FROM tracks"));
    EXPECT_THAT(Query(kLibrary, "SELECT storageid || ':' || name FROM folders"),
                ElementsAre("1:/mnt/ext1/Music/Rock"));

    // A path without a folder is stored whole as the file name, on no storage, and so unseen.
    Add("loose.mp3", {"Loose"});
    EXPECT_EQ("-1:", QueryOne(kLibrary,
                              "SELECT f.storageid || ':' || f.name FROM tracks t JOIN folders f "
                              "ON t.folder = f.id WHERE t.filename = 'loose.mp3'"));
    EXPECT_EQ(0, library->getTrackByPath("loose.mp3").id);
    EXPECT_EQ(2u, library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false).size());

    // Another connection, as an application opens one for statements of its own, sees them all.
    Sqlite other;
    ASSERT_EQ(0, Manager::GetDb(other));
    auto st = other.prepare("SELECT count(*) FROM tracks");
    ASSERT_TRUE(st);
    ASSERT_EQ(kRow, st->step());
    EXPECT_EQ(3, st->column_int(0));
    st.reset();
    // Its corruption handler still works once the manager GetDb made for it is gone.
    qvhost_ipc_clear();
    ASSERT_TRUE(other.corrupt_handler);
    other.corrupt_handler();
    EXPECT_EQ(1, ReadMarker("MediaLibraryDatabaseCorrupted"));
    EXPECT_EQ(1, qvhost_ipc_count(272));
    other.close();

    EXPECT_THROW(Track(nullptr, "title"), std::logic_error);
    EXPECT_THROW(Track("/mnt/ext1/a.mp3", nullptr), std::logic_error);
}

TEST_F(MediaLibrary, FailedStatementsAreReportedByNameAndLeaveTheRestAlone) {
    Add("/mnt/ext1/Music/a.mp3", {"A"});
    const int64_t a = library->getTrackByPath("/mnt/ext1/Music/a.mp3").id;
    LogCapture log;

    // Tags go second: without their table the track is gone all the same.
    Exec(kLibrary, "DROP TABLE tags");
    EXPECT_EQ(QV_FAILED, library->removeTrack(a));
    EXPECT_EQ(0, library->getTrackByPath("/mnt/ext1/Music/a.mp3").id);
    EXPECT_TRUE(
        log.Has(QV_LOG_ERROR, PidLine("Condition: \"remove_func(\"DELETE FROM tags WHERE "
                                      "track_id = ?\") == QV_OK\", return(\"QV_FAILED\")]")));

    // The folder row is made before the track's statement, and stays when that one fails.
    Exec(kLibrary, "DROP TABLE tracks");
    EXPECT_EQ(QV_FAILED, library->addTrack(MakeTrack("/mnt/ext1/New/b.mp3", {"B"})));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Condition: \"!st.get()\", return(\"QV_FAILED\")]")));
    EXPECT_THAT(Query(kLibrary, "SELECT name FROM folders WHERE name = '/mnt/ext1/New'"),
                ElementsAre("/mnt/ext1/New"));
    EXPECT_EQ(QV_FAILED, library->removeTrack(a));
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Condition: \"remove_func(\"DELETE FROM tracks WHERE "
                                              "id = ?\") == QV_OK\", return(\"QV_FAILED\")]")));

    Exec(kLibrary, "DROP TABLE folders");
    // A connection learns of another's schema change when it next runs a statement.
    EXPECT_THAT(library->search(""), IsEmpty());
    log.Clear();
    EXPECT_EQ(QV_FAILED, library->addTrack(MakeTrack("/mnt/ext1/New/c.mp3", {"C"})));
    EXPECT_TRUE(
        log.Has(QV_LOG_ERROR, PidLine("Condition: \"!st1.get()\", return(\"QV_FAILED\")]")));
}

TEST(MediaLibraryDamage, ADamagedFileGivesEmptyListsAndIsMadeAnewAtTheNextStart) {
    WriteFile(kLibrary, std::string(16384, '\x5a'));
    qvhost_ipc_clear();
    {
        Manager library;
        EXPECT_THAT(library.getTracks(Manager::ByTitle, Manager::GroupNone, "", false), IsEmpty());
        EXPECT_THAT(library.search("a"), IsEmpty());
        EXPECT_NE(QV_OK, library.addTrack(MakeTrack("/mnt/ext1/a.mp3", {"A"})));
    }
    EXPECT_EQ(1, ReadMarker("MediaLibraryDatabaseCorrupted"));
    EXPECT_GE(qvhost_ipc_count(272), 1);

    Manager library;
    EXPECT_EQ(0, ReadMarker("MediaLibraryDatabaseCorrupted"));
    ASSERT_EQ(QV_OK, library.addTrack(MakeTrack("/mnt/ext1/a.mp3", {"A"})));
    EXPECT_THAT(Titles(library.getTracks(Manager::ByTitle, Manager::GroupNone, "", false)),
                ElementsAre("A"));
}

TEST_F(MediaLibrary, RemoveTrackTakesItsTagsAlongAndLeavesTheFolder) {
    Add("/mnt/ext1/Music/a.mp3", {"A"});
    Add("/mnt/ext1/Music/b.mp3", {"B"});
    const int64_t a = library->getTrackByPath("/mnt/ext1/Music/a.mp3").id;
    const int64_t b = library->getTrackByPath("/mnt/ext1/Music/b.mp3").id;
    Exec(kLibrary, "INSERT INTO tag_names(id, name) VALUES (1, 'mood'); INSERT INTO tags VALUES (" +
                       std::to_string(a) + ", 1, 'calm'), (" + std::to_string(b) + ", 1, 'wild')");

    EXPECT_EQ(QV_OK, library->removeTrack(a));
    EXPECT_THAT(Titles(library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false)),
                ElementsAre("B"));
    EXPECT_THAT(Query(kLibrary, "SELECT value FROM tags"), ElementsAre("wild"));

    EXPECT_EQ(QV_OK, library->removeTrack(b));
    EXPECT_EQ(QV_OK, library->removeTrack(b));  // gone already: still a success
    EXPECT_EQ(QV_OK, library->removeTrack(424242));
    EXPECT_THAT(Query(kLibrary, "SELECT value FROM tags"), IsEmpty());
    EXPECT_EQ("1", QueryOne(kLibrary, "SELECT count(*) FROM folders"));
}

TEST_F(MediaLibrary, CardTracksLeaveWithTheCardAndComeBackWithIt) {
    Add("/mnt/ext1/Music/inside.mp3", {"Inside", "Home Band"});
    Add("/mnt/ext2/Music/early.mp3", {"Early", "Card Band"});  // no card yet: on no storage

    qvhost_set_card_inserted(1);
    qvhost_set_card_serial("5D0A11CE");
    library->updateStorageIds();
    Add("/mnt/ext2/Music/outside.mp3", {"Outside", "Card Band"});
    MakeDirectory("/mnt/ext1/Music");
    MakeDirectory("/mnt/ext2/Music");

    auto everything = [this] {
        return Titles(library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false));
    };
    auto shown = [&](const std::vector<std::string>& titles, const std::vector<std::string>& bands,
                     const std::vector<std::string>& storages) {
        EXPECT_EQ(titles, everything());
        EXPECT_EQ(titles, Titles(library->search("side")));
        EXPECT_EQ(bands, Groups(library->getTrackGroups(Manager::GroupArtist, Manager::Ascending)));
        EXPECT_EQ(storages, Groups(library->getSubdirsTracksCount("/mnt")));
    };
    shown({"Inside", "Outside"}, {"Card Band=1", "Home Band=1"}, {"ext1=1", "ext2=1"});
    EXPECT_GT(library->getTrackByPath("/mnt/ext2/Music/outside.mp3").id, 0);

    qvhost_set_card_inserted(0);
    library->updateStorageIds();
    shown({"Inside"}, {"Home Band=1"}, {"ext1=1"});
    EXPECT_EQ(0, library->getTrackByPath("/mnt/ext2/Music/outside.mp3").id);

    // The same card again: its tracks were never removed from the file.
    qvhost_set_card_inserted(1);
    library->updateStorageIds();
    shown({"Inside", "Outside"}, {"Card Band=1", "Home Band=1"}, {"ext1=1", "ext2=1"});

    // Another card is another storage, even in the same slot and folders.
    qvhost_set_card_serial("0THER");
    library->updateStorageIds();
    shown({"Inside"}, {"Home Band=1"}, {"ext1=1", "ext2=0"});
    EXPECT_THAT(Query(kLibrary, "SELECT name FROM storages ORDER BY id"),
                ElementsAre("InternalStorage", "SDCard:5D0A11CE", "SDCard:0THER"));
}

class TrackLists : public MediaLibrary {
protected:
    void SetUp() override {
        Add("/mnt/ext1/Music/Alpha/01 Intro.mp3", {"Song C", "Alpha", "First", "Rock", 2, 300});
        Add("/mnt/ext1/Music/Alpha/02 Theme.mp3", {"song b", "ALPHA", "First", "Rock", 1, 100});
        Add("/mnt/ext1/Music/Alphabet/03 Letters.mp3",
            {"Song A", "Alphabet", "ABC", "Pop", 3, 200});
        Add("/mnt/ext1/Music2/04 Other.mp3", {"Other", "Zulu", "", "Jazz", 0, 50});
        Add("/mnt/ext1/Music/Al_ha/05 Under.mp3", {"Under", "Al_ha", "", "", 9, 400});
    }
};

TEST_F(TrackLists, GroupValuesArePrefixesUnlessExact) {
    auto tracks = [this](Manager::TrackGroupType group, const std::string& value, bool exact) {
        return Titles(library->getTracks(Manager::ByTrackNo, group, value, exact));
    };
    // LIKE: a prefix, ASCII case folded, "_" a wildcard.
    EXPECT_THAT(tracks(Manager::GroupArtist, "al", false),
                ElementsAre("song b", "Song C", "Song A", "Under"));
    EXPECT_THAT(tracks(Manager::GroupArtist, "Alpha", true), ElementsAre("Song C"));
    EXPECT_THAT(tracks(Manager::GroupArtist, "AL_H", false),
                ElementsAre("song b", "Song C", "Song A", "Under"));
    EXPECT_THAT(tracks(Manager::GroupAlbum, "First", true), ElementsAre("song b", "Song C"));
    EXPECT_THAT(tracks(Manager::GroupAlbum, "", true), ElementsAre("Other", "Under"));
    EXPECT_THAT(tracks(Manager::GroupGenre, "r", false), ElementsAre("song b", "Song C"));

    // A folder with everything below it, and the sibling that merely begins like it.
    EXPECT_THAT(tracks(Manager::GroupFolder, "/mnt/ext1/Music", false),
                ElementsAre("Other", "song b", "Song C", "Song A", "Under"));
    EXPECT_THAT(tracks(Manager::GroupFolder, "/mnt/ext1/Music/Alpha", true),
                ElementsAre("song b", "Song C"));

    // No column, nothing bound: the value is ignored.
    EXPECT_EQ(5u, tracks(Manager::GroupNone, "ignored", true).size());
    EXPECT_EQ(5u, tracks(static_cast<Manager::TrackGroupType>(42), "ignored", true).size());

    LogCapture log;
    EXPECT_THAT(tracks(Manager::GroupArtist, "say \"hi\"", false), IsEmpty());
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, kPrepareFailed));
    // Bound, a double quote is only a character.
    log.Clear();
    EXPECT_THAT(tracks(Manager::GroupArtist, "say \"hi\"", true), IsEmpty());
    EXPECT_THAT(log.Messages(QV_LOG_ERROR), IsEmpty());
}

TEST_F(TrackLists, EachSortHasItsKey) {
    auto sorted = [this](Manager::SortType sort) {
        return Titles(library->getTracks(sort, Manager::GroupNone, "", false));
    };
    // Titles and file names by the language's rules: case does not split the alphabet.
    EXPECT_THAT(sorted(Manager::ByTitle),
                ElementsAre("Other", "Song A", "song b", "Song C", "Under"));
    EXPECT_THAT(sorted(Manager::ByFilename),
                ElementsAre("Song C", "song b", "Song A", "Other", "Under"));
    EXPECT_THAT(sorted(Manager::ByTrackNo),
                ElementsAre("Other", "song b", "Song C", "Song A", "Under"));
    EXPECT_THAT(sorted(Manager::ByDuration),
                ElementsAre("Other", "song b", "Song A", "Song C", "Under"));
    Exec(kLibrary, "UPDATE tracks SET timestamp = 1000 - id");
    EXPECT_THAT(sorted(Manager::ByTimestamp),
                ElementsAre("Under", "Other", "Song A", "song b", "Song C"));
    // Above 4 there is no order of its own: exactly the one SQLite gives the same statement.
    const std::vector<std::string> unordered =
        Query(kLibrary,
              "SELECT title, t.id, artist, album, track_no, genre, duration, filename, f.name, "
              "size, fast_hash, timestamp FROM tracks t INNER JOIN folders f ON t.folder = f.id "
              "WHERE (f.storageid = 1)");
    ASSERT_EQ(5u, unordered.size());
    EXPECT_EQ(sorted(static_cast<Manager::SortType>(5)), unordered);
    EXPECT_EQ(sorted(static_cast<Manager::SortType>(7)), unordered);
}

TEST_F(TrackLists, GroupsCountTracksAndTheEmptyOneComesLast) {
    Add("/mnt/ext1/Music/Anon/06.mp3", {"Nameless"});
    EXPECT_THAT(Groups(library->getTrackGroups(Manager::GroupArtist, Manager::Ascending)),
                ElementsAre("Al_ha=1", "Alpha=1", "ALPHA=1", "Alphabet=1", "Zulu=1", "=1"));
    EXPECT_THAT(Groups(library->getTrackGroups(Manager::GroupAlbum, Manager::Descending)),
                ElementsAre("First=2", "ABC=1", "=3"));
    EXPECT_THAT(Groups(library->getTrackGroups(Manager::GroupGenre, Manager::Ascending)),
                ElementsAre("Jazz=1", "Pop=1", "Rock=2", "=2"));
    auto folders = library->getTrackGroups(Manager::GroupFolder, Manager::Ascending);
    EXPECT_THAT(Groups(folders), ElementsAre("/mnt/ext1/Music/Al_ha=1", "/mnt/ext1/Music/Alpha=2",
                                             "/mnt/ext1/Music/Alphabet=1", "/mnt/ext1/Music/Anon=1",
                                             "/mnt/ext1/Music2=1"));
    EXPECT_EQ(Manager::GroupFolder, folders.front().type);

    LogCapture log;
    EXPECT_THAT(library->getTrackGroups(Manager::GroupNone, Manager::Ascending), IsEmpty());
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, kPrepareFailed));
}

TEST_F(TrackLists, SearchLooksIntoTitleArtistAlbumAndFileName) {
    auto found = [this](const std::string& text) { return Titles(library->search(text)); };
    EXPECT_THAT(found("SONG"), UnorderedElementsAre("Song A", "song b", "Song C"));
    EXPECT_THAT(found("zul"), ElementsAre("Other"));     // artist
    EXPECT_THAT(found("abc"), ElementsAre("Song A"));    // album
    EXPECT_THAT(found("theme"), ElementsAre("song b"));  // file name
    EXPECT_THAT(found("nowhere"), IsEmpty());
    EXPECT_EQ(5u, found("").size());

    auto records = library->search("Letters");
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ("/mnt/ext1/Music/Alphabet/03 Letters.mp3", records[0].path);
    EXPECT_EQ(200, records[0].duration);
    EXPECT_EQ(0, records[0].timestamp);  // not among the columns of a search

    LogCapture log;
    EXPECT_THAT(found("o'clock"), IsEmpty());
    EXPECT_TRUE(log.Has(QV_LOG_ERROR, kPrepareFailed));
}

TEST_F(MediaLibrary, TrackByPathMatchesFolderAndFileNameExactly) {
    Add("/mnt/ext1/Books/tale.zip:#zip(chapter 1.mp3)", {"Chapter 1"});
    Add("/mnt/ext1/Books/tale.zip:#zip(cd2/chapter 2.mp3)", {"Chapter 2"});
    EXPECT_EQ("Chapter 1",
              library->getTrackByPath("/mnt/ext1/Books/tale.zip:#zip(chapter 1.mp3)").title);
    EXPECT_EQ("Chapter 2",
              library->getTrackByPath("/mnt/ext1/Books/tale.zip:#zip(cd2/chapter 2.mp3)").title);
    EXPECT_EQ(0, library->getTrackByPath("/mnt/ext1/books/tale.zip:#zip(chapter 1.mp3)").id);
    EXPECT_EQ(0, library->getTrackByPath("/mnt/ext1/Books/tale.zip").id);
    Track blank = library->getTrackByPath("/mnt/ext1/none.mp3");
    EXPECT_EQ(0, blank.id);
    EXPECT_EQ("", blank.path);
    EXPECT_EQ("", blank.title);
}

TEST_F(MediaLibrary, FolderBrowserListsSubdirectoriesWithTheirTracks) {
    for (const char* dir :
         {"/mnt/ext1/Music/Rock", "/mnt/ext1/Music/Pop", "/mnt/ext1/Music/.hidden",
          "/mnt/ext1/Music/ambient", "/mnt/ext1/Music2", "/mnt/ext1/Books", "/mnt/ext1/.trash",
          "/mnt/ext1/applications/app", "/mnt/ext1/System/x"})
        MakeDirectory(dir);
    WriteFile("/mnt/ext1/notes.txt", "not a directory");
    Add("/mnt/ext1/Music/Rock/a.mp3");
    Add("/mnt/ext1/Music/Rock/b.mp3");
    Add("/mnt/ext1/Music/Pop/c.mp3");
    Add("/mnt/ext1/Music/d.mp3");
    Add("/mnt/ext1/Music2/e.mp3");
    Add("/mnt/ext1/Music/.hidden/f.mp3");

    // "Music" counts its sibling "Music2" too: the pattern is open on both sides.
    EXPECT_THAT(Groups(library->getSubdirsTracksCount("/mnt/ext1")),
                ElementsAre("Books=0", "Music=6", "Music2=1", "System=0"));
    EXPECT_THAT(Groups(library->getSubdirsTracksCount("/mnt/ext1/Music")),
                ElementsAre("Pop=1", "Rock=2", "ambient=0"));  // byte order of the names
    EXPECT_EQ(Manager::GroupFolder, library->getSubdirsTracksCount("/mnt/ext1/Music")[0].type);

    // The system's trees are never browsed, whatever their case; missing ones give nothing.
    EXPECT_THAT(library->getSubdirsTracksCount("/mnt/ext1/system"), IsEmpty());
    EXPECT_THAT(library->getSubdirsTracksCount("/mnt/ext1/System"), IsEmpty());
    EXPECT_THAT(library->getSubdirsTracksCount("/mnt/ext1/applications"), IsEmpty());
    EXPECT_THAT(library->getSubdirsTracksCount("/mnt/ext1/nothing"), IsEmpty());
    EXPECT_THAT(Groups(library->getSubdirsTracksCount("/mnt")), ElementsAre("ext1=6"));

    // Nor is the secure tree beside the storages, though another directory there would be.
    {
        qvtest::MountOver mnt("/mnt", {"secure/Music", "Secure2/Music", "other/Music"});
        EXPECT_THAT(library->getSubdirsTracksCount("/mnt/secure"), IsEmpty());
        EXPECT_THAT(library->getSubdirsTracksCount("/mnt/Secure2"), IsEmpty());
        EXPECT_THAT(Groups(library->getSubdirsTracksCount("/mnt/other")), ElementsAre("Music=0"));
    }

    // A name with a double quote breaks its statement: the names before it are what is listed.
    MakeDirectory("/mnt/ext1/Music/Q\"uote");
    EXPECT_THAT(Groups(library->getSubdirsTracksCount("/mnt/ext1/Music")), ElementsAre("Pop=1"));
}

TEST_F(MediaLibrary, TitlesFollowTheInterfaceLanguage) {
    auto titles = [this] {
        return Titles(library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false));
    };
    for (const char* title : {"Zebra", "Äpfel", "Apfel", "Bär"})
        Add(std::string("/mnt/ext1/de/") + title + ".mp3", {title, title});

    UseLanguage("de");
    Remake();
    EXPECT_THAT(titles(), ElementsAre("Apfel", "Äpfel", "Bär", "Zebra"));
    EXPECT_THAT(Groups(library->getTrackGroups(Manager::GroupArtist, Manager::Descending)),
                ElementsAre("Zebra=1", "Bär=1", "Äpfel=1", "Apfel=1"));
    EXPECT_THAT(Titles(library->getTracks(Manager::ByFilename, Manager::GroupNone, "", false)),
                ElementsAre("Apfel", "Äpfel", "Bär", "Zebra"));

    // Swedish puts "ä" after "z": the language really decides.
    UseLanguage("sv");
    Remake();
    EXPECT_THAT(titles(), ElementsAre("Apfel", "Bär", "Zebra", "Äpfel"));

    for (const char* title : {"Яблоко", "арбуз", "Ёж", "Вишня"})
        Add(std::string("/mnt/ext1/ru/") + title + ".mp3", {title});
    UseLanguage("ru");
    Remake();
    auto russian = library->getTracks(Manager::ByTitle, Manager::GroupFolder, "/mnt/ext1/ru", true);
    EXPECT_THAT(Titles(russian), ElementsAre("арбуз", "Вишня", "Ёж", "Яблоко"));
}

// The host's icu_load_collation on a bare connection: a locale's order, redefinition, refusal.
TEST(HostCollation, LoadsALocalesOrderAndRefusesWhatItCannotUse) {
    Sqlite db;
    ASSERT_EQ(0, db.open("/mnt/ext1/collation.db"));
    auto ordered = [&db] {
        std::vector<std::string> words;
        auto st = db.prepare(
            "SELECT column1 FROM (VALUES ('Zebra'), ('Äpfel'), ('apfel'), ('Bär'), (CAST(x'C3' AS "
            "TEXT)), ('')) "
            "ORDER BY column1 COLLATE loaded");
        while (st && st->step() == kRow)
            words.push_back(st->column_text(0) ? st->column_text(0) : "NULL");
        return words;
    };
    EXPECT_EQ(kDone, db.exec("SELECT icu_load_collation('de', 'loaded')"));
    // Invalid UTF-8 still takes its place in a total order.
    EXPECT_THAT(ordered(), ElementsAre("", "apfel", "Äpfel", "Bär", "Zebra", "\xC3"));
    EXPECT_EQ(kDone, db.exec("SELECT icu_load_collation('sv', 'swedish')"));
    EXPECT_EQ(kError, db.exec("SELECT icu_load_collation('sv', 'loaded')"));  // defined already
    EXPECT_THAT(ordered(), ElementsAre("", "apfel", "Äpfel", "Bär", "Zebra", "\xC3"));
    db.close();
    ASSERT_EQ(0, db.open("/mnt/ext1/collation.db"));
    EXPECT_EQ(kDone, db.exec("SELECT icu_load_collation('sv', 'loaded')"));
    EXPECT_THAT(ordered(), ElementsAre("", "apfel", "Bär", "Zebra", "Äpfel", "\xC3"));

    EXPECT_EQ(kError, db.exec("SELECT icu_load_collation(NULL, 'loaded')"));
    EXPECT_EQ(kError, db.exec("SELECT icu_load_collation('de', '')"));
    EXPECT_EQ(kError, db.exec("SELECT icu_load_collation('de')"));
    db.close();

    qvhost_set_icu_collation_enabled(0);
    ASSERT_EQ(0, db.open("/mnt/ext1/collation.db"));
    EXPECT_EQ(kError, db.exec("SELECT icu_load_collation('de', 'loaded')"));
    db.close();
}

TEST_F(MediaLibrary, WithoutTheCollationTextIsOrderedByItsBytesAndEveryQueryStillWorks) {
    for (const char* title : {"Zebra", "Äpfel", "Apfel", "Bär"})
        Add(std::string("/mnt/ext1/de/") + title + ".mp3", {title, title, title, title});
    auto check_everything_prepares = [this] {
        LogCapture log;
        EXPECT_THAT(Titles(library->getTracks(Manager::ByTitle, Manager::GroupNone, "", false)),
                    ElementsAre("Apfel", "Bär", "Zebra", "Äpfel"));
        EXPECT_EQ(4u,
                  library->getTracks(Manager::ByFilename, Manager::GroupArtist, "", false).size());
        for (auto group : {Manager::GroupArtist, Manager::GroupAlbum, Manager::GroupGenre,
                           Manager::GroupFolder}) {
            EXPECT_FALSE(library->getTrackGroups(group, Manager::Ascending).empty());
            EXPECT_FALSE(library->getTrackGroups(group, Manager::Descending).empty());
        }
        EXPECT_EQ(1u, library->search("Zeb").size());
        EXPECT_THAT(log.Messages(QV_LOG_ERROR), IsEmpty());
    };

    // A platform whose SQLite lacks the function.
    qvhost_set_icu_collation_enabled(0);
    {
        LogCapture log;
        Remake();
        EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Do not support custom_collation")));
    }
    check_everything_prepares();

    // A platform that knows no language.
    qvhost_set_icu_collation_enabled(1);
    qvhost_set_state_language(nullptr);
    {
        LogCapture log;
        Remake();
        EXPECT_TRUE(log.Has(QV_LOG_ERROR, PidLine("Do not support custom_collation")));
    }
    check_everything_prepares();
}

TEST(MediaLibraryEncoding, TheCodePageFollowsTheLanguageInThePlayerSettings) {
    { Manager library; }
    EXPECT_EQ("1251", Manager::encoding_);  // nothing configured

    SetPlayerConfig("8bit_en", "koi8-r");
    { Manager library; }
    EXPECT_EQ("koi8-r", Manager::encoding_);

    SetPlayerConfig("8bit_en", "win1250");
    { Manager library; }
    EXPECT_EQ("1250", Manager::encoding_);

    SetGlobal("language", "ru");
    SetPlayerConfig("8bit_ru", "cp866");
    { Manager library; }
    EXPECT_EQ("cp866", Manager::encoding_);
}

TEST(MediaLibraryProcesses, AListerSeesTheTracksAnotherProcessWrites) {
    { Manager create; }
    constexpr int kTracks = 200;
    qvtest::Rendezvous started;
    auto writer = qvtest::ChildProcess::Start([&started] {
        Manager library;
        started.Signal();
        for (int i = 0; i < kTracks; ++i) {
            std::string path =
                "/mnt/ext1/Music/Band " + std::to_string(i % 7) + "/" + std::to_string(i) + ".mp3";
            if (library.addTrack(MakeTrack(path, {"Track " + std::to_string(i), "Band"})) != QV_OK)
                return 1;
        }
        return 0;
    });
    ASSERT_TRUE(started.Wait());

    Manager library;
    LogCapture log;
    size_t seen = 0;
    int lists = 0;
    while (seen < static_cast<size_t>(kTracks) && lists < 100000) {
        auto tracks = library.getTracks(Manager::ByTimestamp, Manager::GroupNone, "", false);
        ASSERT_GE(tracks.size(), seen);  // committed tracks never vanish from a list
        for (const auto& track : tracks)
            ASSERT_EQ(0u, track.title.rfind("Track ", 0)) << "a half-written record";
        seen = tracks.size();
        ++lists;
    }
    auto result = writer.Wait();
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    EXPECT_EQ(static_cast<size_t>(kTracks), seen);
    EXPECT_GT(lists, 1);
    EXPECT_THAT(Groups(library.getTrackGroups(Manager::GroupArtist, Manager::Ascending)),
                ElementsAre("Band=200"));
    EXPECT_THAT(log.Messages(QV_LOG_ERROR), IsEmpty());
}

}  // namespace
