// Playlists: extended M3U files read and written as bytes, and lists made from a folder tree.
// Nothing here touches the database.

#include <dirent.h>
#include <strings.h>

#include <fstream>
#include <sstream>

#include "common_utilities/media_library_manager.h"

namespace quorvel {
namespace utilities {
namespace {

using Track = MediaLibraryManager::Track;

constexpr const char* kHeader = "#EXTM3U";
constexpr const char* kInfo = "#EXTINF:";
constexpr size_t kInfoLength = 8;

bool StartsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// "#EXTINF:<seconds>,[<artist>-]<title>" into a fresh record; what doesn't parse stays blank.
Track ParseInfo(const std::string& line) {
    Track track;
    size_t comma = line.size() > kInfoLength ? line.find(',', kInfoLength) : std::string::npos;
    if (comma == std::string::npos) return track;
    std::istringstream seconds(line.substr(kInfoLength, comma - kInfoLength));
    if (!(seconds >> track.duration)) track.duration = 0;
    std::string rest = line.substr(comma + 1);
    size_t dash = rest.find('-');
    if (dash == std::string::npos) {
        track.title = rest;
    } else {
        track.artist = rest.substr(0, dash);
        track.title = rest.substr(dash + 1);
    }
    track.tags_read = !track.title.empty();
    return track;
}

bool HasExtension(const std::string& name, const char* extension) {
    size_t dot = name.rfind('.');
    return dot != std::string::npos && ::strcasecmp(name.c_str() + dot, extension) == 0;
}

void CollectDirectory(const char* path, bool with_playlists, std::vector<Track>& result) {
    DIR* dir = ::opendir(path);
    if (!dir) return;
    if (::strncasecmp(path, "/mnt/ext1/system", 16) == 0) {
        ::closedir(dir);
        return;
    }
    while (const dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name[0] == '.') continue;
        // Whole, however long: a path cut to a fixed buffer could name the folder being walked,
        // and the walk would then descend into it without end.
        const std::string full = std::string(path) + "/" + entry->d_name;
        if (entry->d_type & 4) {
            CollectDirectory(full.c_str(), with_playlists, result);
        } else if (with_playlists && (HasExtension(name, ".m3u") || HasExtension(name, ".m3u8"))) {
            for (Track& track : MediaLibraryManager::LoadPlayList(full)) {
                result.push_back(std::move(track));
            }
        } else if (HasExtension(name, ".mp3")) {
            result.emplace_back(full.c_str(), entry->d_name);
        }
    }
    ::closedir(dir);
}

}  // namespace

std::vector<Track> MediaLibraryManager::LoadPlayList(const std::string& path) {
    std::vector<Track> result;
    std::ifstream stream(path);
    QV_RETURN_UNLESS(stream.good(), result);
    std::string line;
    std::getline(stream, line);
    bool extended = StartsWith(line, kHeader);
    size_t slash = path.rfind('/');
    std::string base = slash == std::string::npos ? "" : path.substr(0, slash);
    Track current;
    while (std::getline(stream, line)) {
        if (line.empty()) continue;
        if (line[0] == '#') {
            if (!extended) continue;
            current = StartsWith(line, kInfo) ? ParseInfo(line) : Track();
            continue;
        }
        current.path = line[0] == '/' ? line : base + "/" + line;
        current.playlist_entry = line;
        result.push_back(std::move(current));
        current = Track();
    }
    return result;
}

int MediaLibraryManager::SavePlayList(const std::vector<Track>& tracks, const std::string& path) {
    std::ofstream stream(path, std::ios::trunc);
    QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    stream << kHeader << '\n';
    for (const Track& track : tracks) {
        if (track.tags_read) {
            stream << kInfo << track.duration << ',';
            if (!track.artist.empty()) stream << track.artist << '-';
            stream << track.title << '\n';
        }
        stream << track.path << '\n';
        QV_RETURN_UNLESS(stream.good(), QV_FAILED);
    }
    return QV_OK;
}

std::vector<Track> MediaLibraryManager::playListFromDirectory(const char* path,
                                                              bool with_playlists) {
    std::vector<Track> result;
    if (path) CollectDirectory(path, with_playlists, result);
    return result;
}

}  // namespace utilities
}  // namespace quorvel
