// qvtool tags and qvtool playlist ...: what the library reads from audio files and M3U playlists,
// without touching the media library's database.

#include <sys/stat.h>

#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/media_library_manager.h"
#include "progress.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::MediaLibraryManager;
using Track = MediaLibraryManager::Track;

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Whether the file (or the archive of a "<archive>:#zip(<entry>)" path) is there.
bool Exists(const std::string& path) {
    std::string file = path.substr(0, path.find(":#zip("));
    struct stat st {};
    return ::stat(file.c_str(), &st) == 0;
}

// The code page for tags that are not UTF-8: the user's, as a manager resolves it, unless the
// command line names one.
void ResolveEncoding(Args& args) {
    auto encoding = args.Option("--encoding");
    { MediaLibraryManager library; }
    if (encoding) MediaLibraryManager::encoding_ = *encoding;
}

void PrintTracks(const std::vector<Track>& tracks, bool entries) {
    std::vector<std::string> headers = {"NO", "TITLE", "ARTIST", "ALBUM", "GENRE", "TIME", "PATH"};
    if (entries) headers = {"#", "TIME", "ARTIST", "TITLE", "PATH", "AS WRITTEN"};
    Table table(headers);
    size_t index = 0;
    for (const Track& track : tracks) {
        ++index;
        if (entries) {
            table.AddRow({std::to_string(index),
                          track.tags_read ? FormatDuration(track.duration) : "-", track.artist,
                          track.title, track.path, track.playlist_entry});
        } else {
            table.AddRow({std::to_string(track.track_no), track.title, track.artist, track.album,
                          track.genre, FormatDuration(track.duration), track.path});
        }
    }
    table.Print(std::cout);
    std::cout << "(" << tracks.size() << (tracks.size() == 1 ? " track" : " tracks") << ")\n";
}

// Tags of each file; an unreadable one is reported and left out, and sets the exit code.
std::vector<Track> ReadTags(const std::vector<std::string>& paths, ExitCode& code) {
    std::vector<Track> tracks;
    for (const std::string& path : paths) {
        Track track(path.c_str(), "");
        MediaLibraryManager::getFileTags(track);
        if (track.tags_read) {
            tracks.push_back(std::move(track));
            continue;
        }
        bool missing = !Exists(path);
        std::cerr << "qvtool: " << path
                  << (missing ? ": no such file\n" : ": not an audio file whose tags can be read\n");
        if (code == kOk || missing) code = missing ? kNotFound : kFailed;
    }
    return tracks;
}

int RunTags(Args& args) {
    ResolveEncoding(args);
    std::vector<std::string> paths = args.Rest();
    if (paths.empty()) throw Failure(kUsage, "no FILE given");
    ExitCode code = kOk;
    PrintTracks(ReadTags(paths, code), false);
    return code;
}

int RunLoad(Args& args) {
    std::string path = args.Next("PLAYLIST");
    args.Done();
    if (!Exists(path)) throw Failure(kNotFound, path + ": no such file");
    if (IsDirectory(path)) throw Failure(kUsage, path + ": a directory, not a playlist");
    PrintTracks(MediaLibraryManager::LoadPlayList(path), true);
    return kOk;
}

int RunDir(Args& args) {
    bool with_playlists = args.Flag("--with-playlists");
    std::string path = args.Next("DIR");
    args.Done();
    if (!IsDirectory(path)) throw Failure(kNotFound, path + ": no such directory");
    PrintTracks(MediaLibraryManager::playListFromDirectory(path.c_str(), with_playlists), true);
    return kOk;
}

int RunSave(Args& args) {
    ResolveEncoding(args);
    std::string out = args.Next("PLAYLIST");
    std::vector<std::string> sources = args.Rest();
    if (sources.empty()) throw Failure(kUsage, "no FILE or DIR to put in the playlist");
    std::vector<std::string> files;
    for (const std::string& source : sources) {
        if (!IsDirectory(source)) {
            files.push_back(source);
            continue;
        }
        for (const Track& track : MediaLibraryManager::playListFromDirectory(source.c_str(), false))
            files.push_back(track.path);
    }
    ExitCode code = kOk;
    std::vector<Track> tracks = ReadTags(files, code);
    if (MediaLibraryManager::SavePlayList(tracks, out) != QV_OK) {
        throw Failure(kFailed, out + ": could not be written");
    }
    std::cout << "saved " << tracks.size() << (tracks.size() == 1 ? " track" : " tracks")
              << " to " << out << "\n";
    return code;
}

const bool registered_tags = Register(
    {"tags", "the tags of audio files, as the player reads them",
     "usage: qvtool tags [--encoding CP] FILE...\n"
     "Reads title, artist, album, genre, track number and length of each FILE through the\n"
     "library's tag reader. A FILE may be a member of a zip archive: \"BOOK.zip:#zip(01.mp3)\".\n"
     "Files without a title tag are titled by their name. Text that is not UTF-8 is taken to be\n"
     "in the user's 8-bit code page (\"8bit_<language>\" of player.cfg) or CP (\"1251\",\n"
     "\"koi8-r\"). Unreadable files are reported and the others still listed; exit code 3 when\n"
     "a FILE does not exist, 1 when one could not be read.\n",
     RunTags});

const bool registered_load = Register(
    {"playlist load", "the tracks of an M3U playlist",
     "usage: qvtool playlist load PLAYLIST\n"
     "Lists the tracks of an extended M3U file (.m3u or .m3u8) as the player reads it: TIME,\n"
     "ARTIST and TITLE from \"#EXTINF:\" lines, PATH resolved against the playlist's folder, and\n"
     "the line AS WRITTEN. The first line is always taken for the header; a file without\n"
     "\"#EXTM3U\" loses it and its comment lines are ignored.\n",
     RunLoad});

const bool registered_save = Register(
    {"playlist save", "write an M3U playlist of audio files",
     "usage: qvtool playlist save [--encoding CP] PLAYLIST FILE|DIR...\n"
     "Writes PLAYLIST with the files given, and the .mp3 files below each DIR, in that order,\n"
     "each with an \"#EXTINF:\" line of its length, artist and title as read from its tags, and\n"
     "its absolute path. Unreadable files are reported and left out (exit code 1, or 3 for\n"
     "one that does not exist).\n",
     RunSave});

const bool registered_dir = Register(
    {"playlist dir", "the list the player makes of a folder tree",
     "usage: qvtool playlist dir [--with-playlists] DIR\n"
     "Lists every .mp3 file below DIR, in directory order, titled by its file name; with\n"
     "--with-playlists the tracks of the .m3u and .m3u8 files found there too. Names beginning\n"
     "with \".\" and the device's system folder are left out.\n",
     RunDir});

}  // namespace
}  // namespace qvtool
