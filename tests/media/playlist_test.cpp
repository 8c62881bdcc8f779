// Playlists as other players write them, saved and read back, and lists made from folders.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "common_utilities/media_library_manager.h"
#include "log_capture.h"

namespace {

using quorvel::utilities::MediaLibraryManager;
using Track = MediaLibraryManager::Track;

const std::string kDir = "/mnt/ext1/pl";

void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::vector<Track> Load(const std::string& text, const std::string& name = "x.m3u") {
    ::mkdir(kDir.c_str(), 0755);
    Write(kDir + "/" + name, text);
    return MediaLibraryManager::LoadPlayList(kDir + "/" + name);
}

TEST(PlaylistTest, ParsesExtendedInfoLines) {
    auto tracks = Load(
        "#EXTM3U\n"
        "#EXTINF:125,Quartet-Rain\nrain.mp3\n"
        "#EXTINF:125,Rain\n/mnt/ext2/abs.mp3\n"
        "#EXTINF:125,\nempty-title.mp3\n"
        "#EXTINF:-1,A-B-C\n\nsub/dash.mp3\n"
        "#EXTINF: 7 s,x\nbare.mp3\n"
        "#EXTINF:oops,y\n#EXTINF:5\nafter-comments.mp3\n"
        "plain.mp3\n");
    ASSERT_EQ(tracks.size(), 7u);
    EXPECT_EQ(tracks[0].path, "/mnt/ext1/pl/rain.mp3");
    EXPECT_EQ(tracks[0].playlist_entry, "rain.mp3");
    EXPECT_EQ(tracks[0].duration, 125);
    EXPECT_EQ(tracks[0].artist, "Quartet");
    EXPECT_EQ(tracks[0].title, "Rain");
    EXPECT_TRUE(tracks[0].tags_read);
    EXPECT_EQ(tracks[0].id, 0);

    EXPECT_EQ(tracks[1].path, "/mnt/ext2/abs.mp3");
    EXPECT_EQ(tracks[1].title, "Rain");
    EXPECT_EQ(tracks[1].artist, "");

    EXPECT_EQ(tracks[2].duration, 125);
    EXPECT_EQ(tracks[2].title, "");
    EXPECT_FALSE(tracks[2].tags_read);

    // Split at the first dash; an empty line between info and path changes nothing.
    EXPECT_EQ(tracks[3].duration, -1);
    EXPECT_EQ(tracks[3].artist, "A");
    EXPECT_EQ(tracks[3].title, "B-C");
    EXPECT_EQ(tracks[3].path, "/mnt/ext1/pl/sub/dash.mp3");

    EXPECT_EQ(tracks[4].duration, 7);  // leading blanks and trailing text
    // A later comment replaces the record; "#EXTINF:5" without a comma stays blank.
    EXPECT_EQ(tracks[5].duration, 0);
    EXPECT_EQ(tracks[5].title, "");
    // Each path line is a track, with or without info.
    EXPECT_EQ(tracks[6].path, "/mnt/ext1/pl/plain.mp3");
    EXPECT_FALSE(tracks[6].tags_read);
}

TEST(PlaylistTest, FilesWithoutHeaderOrFromOtherSystemsKeepTheirBytes) {
    // Without a header the first line is lost and comments are ignored.
    auto plain = Load("one.mp3\ntwo.mp3\n#EXTINF:5,x\nthree.mp3\n");
    ASSERT_EQ(plain.size(), 2u);
    EXPECT_EQ(plain[0].playlist_entry, "two.mp3");
    EXPECT_EQ(plain[1].playlist_entry, "three.mp3");
    EXPECT_FALSE(plain[1].tags_read);

    // Carriage returns stay in the lines; a byte-order mark hides the header.
    auto crlf = Load("#EXTM3U\r\n#EXTINF:3,A-B\r\nc.mp3\r\n", "crlf.m3u8");
    ASSERT_EQ(crlf.size(), 1u);
    EXPECT_EQ(crlf[0].title, "B\r");
    EXPECT_EQ(crlf[0].path, "/mnt/ext1/pl/c.mp3\r");
    auto bom = Load("\xEF\xBB\xBF#EXTM3U\n#EXTINF:3,A-B\nc.mp3\n", "bom.m3u8");
    ASSERT_EQ(bom.size(), 1u);
    EXPECT_FALSE(bom[0].tags_read);

    qvtest::LogCapture logs;
    EXPECT_TRUE(MediaLibraryManager::LoadPlayList(kDir + "/none.m3u").empty());
    EXPECT_TRUE(logs.HasFragment(1, "Condition: \"stream.good()\", return(\"result\")]"));
}

TEST(PlaylistTest, SavedListsReloadWithAbsolutePaths) {
    ::mkdir(kDir.c_str(), 0755);
    auto loaded = Load("#EXTM3U\n#EXTINF:125,Quartet-Rain\nrain.mp3\n#EXTINF:9,A-B-C\nx.mp3\n"
                       "/mnt/ext1/y.mp3\n");
    ASSERT_EQ(MediaLibraryManager::SavePlayList(loaded, kDir + "/saved.m3u"), QV_OK);
    auto reloaded = MediaLibraryManager::LoadPlayList(kDir + "/saved.m3u");
    ASSERT_EQ(reloaded.size(), 3u);
    EXPECT_EQ(reloaded[0].playlist_entry, "/mnt/ext1/pl/rain.mp3");
    EXPECT_EQ(reloaded[0].duration, 125);
    EXPECT_EQ(reloaded[0].artist, "Quartet");
    EXPECT_EQ(reloaded[0].title, "Rain");
    // An artist with a dash splits differently on the way back.
    EXPECT_EQ(reloaded[1].artist, "A");
    EXPECT_EQ(reloaded[1].title, "B-C");
    EXPECT_FALSE(reloaded[2].tags_read);

    ASSERT_EQ(MediaLibraryManager::SavePlayList({}, kDir + "/empty.m3u"), QV_OK);
    std::ifstream empty(kDir + "/empty.m3u");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(empty), {}), "#EXTM3U\n");

    qvtest::LogCapture logs;
    EXPECT_EQ(MediaLibraryManager::SavePlayList(loaded, "/mnt/ext1/none/x.m3u"), QV_FAILED);
    EXPECT_TRUE(logs.HasFragment(1, "Condition: \"stream.good()\", return(\"QV_FAILED\")]"));
}

TEST(PlaylistTest, ListsFromFoldersTakeMp3sAndOptionallyPlaylists) {
    const std::string root = "/mnt/ext1/Music";
    for (const char* dir : {"", "/A", "/A/deep", "/.hidden"}) ::mkdir((root + dir).c_str(), 0755);
    for (const char* file : {"/one.MP3", "/A/two.mp3", "/A/deep/three.mp3", "/.hidden/no.mp3",
                             "/.dot.mp3", "/cover.jpg", "/noext"}) {
        Write(root + file, "");
    }
    Write(root + "/A/list.M3U8", "#EXTM3U\n#EXTINF:5,T\n/mnt/ext2/from-list.mp3\n");

    auto paths = [](const std::vector<Track>& tracks) {
        std::vector<std::string> result;
        for (const auto& track : tracks) result.push_back(track.path);
        std::sort(result.begin(), result.end());
        return result;
    };
    auto plain = MediaLibraryManager::playListFromDirectory(root.c_str(), false);
    EXPECT_EQ(paths(plain), (std::vector<std::string>{root + "/A/deep/three.mp3",
                                                      root + "/A/two.mp3", root + "/one.MP3"}));
    for (const auto& track : plain) {
        EXPECT_EQ(track.title, track.path.substr(track.path.rfind('/') + 1));
    }
    auto with_lists = MediaLibraryManager::playListFromDirectory(root.c_str(), true);
    EXPECT_EQ(with_lists.size(), 4u);
    EXPECT_EQ(paths(with_lists).back(), "/mnt/ext2/from-list.mp3");

    ::mkdir("/mnt/ext1/system/x", 0755);
    Write("/mnt/ext1/system/x/a.mp3", "");
    EXPECT_TRUE(MediaLibraryManager::playListFromDirectory("/mnt/ext1/System/x", true).empty());
    EXPECT_TRUE(MediaLibraryManager::playListFromDirectory("/mnt/ext1/none", true).empty());
}

// A folder whose path fills 1023 bytes: "<folder>/<name>" cut to fit a 1024-byte buffer would name
// the folder itself, and walking it again would never end.
TEST(PlaylistTest, FoldersDeeperThanAKilobyteKeepWholePaths) {
    std::string deep = "/mnt/ext1/Deep";
    ::mkdir(deep.c_str(), 0755);
    while (deep.size() < 1023) {
        deep += "/" + std::string(std::min<size_t>(200, 1023 - deep.size() - 1), 'd');
        ASSERT_EQ(0, ::mkdir(deep.c_str(), 0755)) << deep.size();
    }
    ASSERT_EQ(deep.size(), 1023u);
    ::mkdir((deep + "/x").c_str(), 0755);
    Write(deep + "/x/a.mp3", "");
    Write(deep + "/b.mp3", "");

    auto tracks = MediaLibraryManager::playListFromDirectory("/mnt/ext1/Deep", false);
    std::vector<std::string> paths;
    for (const auto& track : tracks) paths.push_back(track.path);
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(paths, (std::vector<std::string>{deep + "/b.mp3", deep + "/x/a.mp3"}));
}

}  // namespace
