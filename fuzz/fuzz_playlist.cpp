// M3U and M3U8 playlists as the player opens them from the card: LoadPlayList of a file, then a
// save and a reload of what it gave. The reload must find the same tracks at the same paths,
// since every path the loader resolves is absolute and lies on one line.

#include <cstdlib>
#include <string>
#include <vector>

#include "common_utilities/media_library_manager.h"
#include "fuzz_support.h"

using quorvel::utilities::MediaLibraryManager;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The two suffixes are read alike; both are offered all the same.
    const std::string path = (size % 2) ? "/tmp/fuzz-list.m3u8" : "/tmp/fuzz-list.m3u";
    qvfuzz::WriteFile(path, data, size);
    const std::vector<MediaLibraryManager::Track> tracks = MediaLibraryManager::LoadPlayList(path);

    const std::string saved = "/tmp/fuzz-saved.m3u";
    QVFUZZ_CHECK(MediaLibraryManager::SavePlayList(tracks, saved) == QV_OK);
    const std::vector<MediaLibraryManager::Track> again = MediaLibraryManager::LoadPlayList(saved);
    QVFUZZ_CHECK(again.size() == tracks.size());
    for (size_t i = 0; i < tracks.size(); ++i)
        QVFUZZ_CHECK(again[i].path == tracks[i].path);
    return 0;
}
