// qvtool tracks ...: the media library of the device, as the player sees it. Every command works
// on the library's own file through MediaLibraryManager, so lists are limited to the storages
// present (the card only while it is in the slot) and ordered by the interface language.

#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "boardprofile.h"
#include "cli.h"
#include "common_utilities/media_library_manager.h"
#include "interrupt_guard.h"
#include "progress.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::MediaLibraryManager;
using quorvel::utilities::Sqlite;
using Track = MediaLibraryManager::Track;
using TrackGroup = MediaLibraryManager::TrackGroup;

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// ---- Values from the command line and from import files -------------------------------------

// Why a track at `path` would not be stored where the player sees it; empty when it would.
struct PathProblem {
    ExitCode code = kOk;
    std::string message;
};

PathProblem CheckTrackPath(const std::string& path) {
    if (path.empty() || path[0] != '/') return {kUsage, path + ": not an absolute path"};
    if (path.back() == '/') return {kUsage, path + ": names a directory, not a file"};
    if (StartsWith(path, "/mnt/ext1/")) return {};
    if (StartsWith(path, "/mnt/ext2/")) {
        if (IsSDinserted()) return {};
        return {kUnavailable, path + ": on the card, and no card is in the slot"};
    }
    return {kUsage, path + ": on no storage of the device (/mnt/ext1/... or /mnt/ext2/...)"};
}

int32_t ParseCount(const std::string& text, const std::string& what) {
    long long value = ParseInteger(text, what);
    if (value < 0 || value > INT32_MAX) throw Failure(kUsage, what + " out of range: " + text);
    return static_cast<int32_t>(value);
}

// ---- Output ---------------------------------------------------------------------------------

void PrintCount(size_t count, const char* one, const char* many) {
    std::cout << "(" << count << " " << (count == 1 ? one : many) << ")\n";
}

void PrintTracks(const std::vector<Track>& tracks) {
    Table table({"ID", "TITLE", "ARTIST", "ALBUM", "NO", "GENRE", "TIME", "PATH"});
    for (const auto& track : tracks) {
        table.AddRow({std::to_string(track.id), track.title, track.artist, track.album,
                      std::to_string(track.track_no), track.genre, FormatDuration(track.duration),
                      track.path});
    }
    table.Print(std::cout);
    PrintCount(tracks.size(), "track", "tracks");
}

void PrintGroups(const std::string& heading, const std::vector<TrackGroup>& groups,
                 const char* one = "group", const char* many = "groups") {
    Table table({heading, "TRACKS"});
    for (const auto& group : groups)
        table.AddRow({group.name.empty() ? "(none)" : group.name, std::to_string(group.count)});
    table.Print(std::cout);
    PrintCount(groups.size(), one, many);
}

// ---- tracks add -----------------------------------------------------------------------------

int RunAdd(Args& args) {
    Track track;
    track.title = args.Option("--title").value_or("");
    track.artist = args.Option("--artist").value_or("");
    track.album = args.Option("--album").value_or("");
    track.genre = args.Option("--genre").value_or("");
    if (auto value = args.Option("--track-no")) track.track_no = ParseCount(*value, "--track-no");
    if (auto value = args.Option("--duration")) track.duration = ParseSeconds(*value, "--duration");
    if (auto value = args.Option("--size")) track.size = ParseCount(*value, "--size");
    track.path = args.Next("PATH");
    args.Done();
    PathProblem problem = CheckTrackPath(track.path);
    if (problem.code != kOk) throw Failure(problem.code, problem.message);

    MediaLibraryManager library;
    // The library stores a file as often as it is given; the tool keeps it single.
    if (Track stored = library.getTrackByPath(track.path); stored.id != 0) {
        throw Failure(kFailed, track.path + " is in the library already, as track " +
                                   std::to_string(stored.id));
    }
    if (library.addTrack(track) != QV_OK) {
        throw Failure(kFailed, "could not store " + track.path + " (see --verbose)");
    }
    std::cout << "added track " << library.getTrackByPath(track.path).id << ": " << track.path
              << "\n";
    return kOk;
}

// ---- tracks import --------------------------------------------------------------------------

// One line of an import file: path, then optionally title, artist, album, genre, track number,
// duration and size, separated by tabs.
Track ParseImportLine(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    std::string field;
    while (std::getline(in, field, '\t'))
        fields.push_back(field);
    if (fields.size() > 8) throw Failure(kUsage, "more than 8 fields");
    fields.resize(8);
    Track track;
    track.path = fields[0];
    PathProblem problem = CheckTrackPath(track.path);
    if (problem.code != kOk) throw Failure(problem.code, problem.message);
    track.title = fields[1];
    track.artist = fields[2];
    track.album = fields[3];
    track.genre = fields[4];
    if (!fields[5].empty()) track.track_no = ParseCount(fields[5], "track number");
    if (!fields[6].empty()) track.duration = ParseSeconds(fields[6], "duration");
    if (!fields[7].empty()) track.size = ParseCount(fields[7], "size");
    return track;
}

// The whole file is read and checked before anything is written: a typo in line 9000 should not
// leave a library half imported.
std::vector<Track> ReadImportFile(const std::string& name) {
    std::string text = name == "-" ? ReadAllInput() : ReadFileOrFail(name);
    std::vector<Track> tracks;
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        try {
            tracks.push_back(ParseImportLine(line));
        } catch (const Failure& failure) {
            throw Failure(failure.code(),
                          name + ":" + std::to_string(number) + ": " + failure.what());
        }
    }
    return tracks;
}

std::set<std::string> StoredPaths(MediaLibraryManager& library) {
    std::set<std::string> paths;
    for (auto& track : library.getTracks(MediaLibraryManager::ByFilename,
                                         MediaLibraryManager::GroupNone, "", false))
        paths.insert(std::move(track.path));
    return paths;
}

int RunImport(Args& args) {
    std::string name = args.Next("FILE");
    args.Done();
    std::vector<Track> tracks = ReadImportFile(name);

    MediaLibraryManager library;
    std::set<std::string> stored = StoredPaths(library);
    InterruptGuard guard;
    Progress progress("importing", tracks.size());
    size_t added = 0, present = 0, failed = 0, done = 0;
    for (const Track& track : tracks) {
        if (InterruptGuard::Interrupted()) break;
        if (!stored.insert(track.path).second) {
            ++present;
        } else if (library.addTrack(track) == QV_OK) {
            ++added;
        } else {
            ++failed;
        }
        progress.Update(++done);
    }
    progress.Finish();
    std::cout << "imported " << added << " of " << tracks.size() << " tracks";
    if (present > 0) std::cout << ", " << present << " already in the library";
    std::cout << "\n";
    if (InterruptGuard::Interrupted()) {
        throw Failure(kInterrupted,
                      "interrupted; " + std::to_string(tracks.size() - done) + " tracks not read");
    }
    if (failed > 0) {
        throw Failure(kFailed,
                      std::to_string(failed) + " tracks could not be stored (see --verbose)");
    }
    return kOk;
}

// ---- tracks list ----------------------------------------------------------------------------

MediaLibraryManager::SortType ParseSort(const std::string& word) {
    if (word == "title") return MediaLibraryManager::ByTitle;
    if (word == "track") return MediaLibraryManager::ByTrackNo;
    if (word == "file") return MediaLibraryManager::ByFilename;
    if (word == "duration") return MediaLibraryManager::ByDuration;
    if (word == "time") return MediaLibraryManager::ByTimestamp;
    throw Failure(kUsage, "unknown sort " + word + " (title, track, file, duration or time)");
}

struct GroupFilter {
    MediaLibraryManager::TrackGroupType group = MediaLibraryManager::GroupNone;
    std::string value;
};

GroupFilter ReadFilter(Args& args) {
    const std::pair<const char*, MediaLibraryManager::TrackGroupType> options[] = {
        {"--artist", MediaLibraryManager::GroupArtist},
        {"--album", MediaLibraryManager::GroupAlbum},
        {"--genre", MediaLibraryManager::GroupGenre},
        {"--folder", MediaLibraryManager::GroupFolder},
    };
    GroupFilter filter;
    for (const auto& [option, group] : options) {
        auto value = args.Option(option);
        if (!value) continue;
        if (filter.group != MediaLibraryManager::GroupNone)
            throw Failure(kUsage, "one of --artist, --album, --genre and --folder at a time");
        filter = {group, *value};
    }
    return filter;
}

int RunList(Args& args) {
    auto sort = ParseSort(args.Option("--sort").value_or("title"));
    GroupFilter filter = ReadFilter(args);
    bool exact = args.Flag("--exact");
    args.Done();
    if (exact && filter.group == MediaLibraryManager::GroupNone)
        throw Failure(kUsage, "--exact needs --artist, --album, --genre or --folder");
    // A prefix goes into the library's statement as text, where a double quote ends it.
    if (!exact && filter.value.find('"') != std::string::npos)
        throw Failure(kUsage, "a value with a double quote can only be matched with --exact");
    if (filter.group == MediaLibraryManager::GroupFolder && filter.value.size() > 1 &&
        filter.value.back() == '/')
        filter.value.pop_back();

    MediaLibraryManager library;
    PrintTracks(library.getTracks(sort, filter.group, filter.value, exact));
    return kOk;
}

// ---- tracks groups, dirs, search, rm --------------------------------------------------------

int RunGroups(Args& args) {
    bool descending = args.Flag("--desc");
    std::string kind = args.Next("artist|album|genre|folder");
    args.Done();
    const std::pair<const char*, MediaLibraryManager::TrackGroupType> kinds[] = {
        {"artist", MediaLibraryManager::GroupArtist},
        {"album", MediaLibraryManager::GroupAlbum},
        {"genre", MediaLibraryManager::GroupGenre},
        {"folder", MediaLibraryManager::GroupFolder},
    };
    for (const auto& [name, group] : kinds) {
        if (kind != name) continue;
        MediaLibraryManager library;
        auto dir = descending ? MediaLibraryManager::Descending : MediaLibraryManager::Ascending;
        std::string heading = name;
        for (auto& c : heading)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        PrintGroups(heading, library.getTrackGroups(group, dir));
        return kOk;
    }
    throw Failure(kUsage, "unknown group " + kind + " (artist, album, genre or folder)");
}

int RunDirs(Args& args) {
    std::string path = args.Next("PATH");
    args.Done();
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    if (::access(path.c_str(), F_OK) != 0) throw Failure(kNotFound, "no directory " + path);
    MediaLibraryManager library;
    PrintGroups("DIRECTORY", library.getSubdirsTracksCount(path), "directory", "directories");
    return kOk;
}

int RunSearch(Args& args) {
    std::string text = args.Next("TEXT");
    args.Done();
    // The library writes the text into its statement between apostrophes.
    if (text.find('\'') != std::string::npos)
        throw Failure(kUsage, "the search text can't contain an apostrophe");
    MediaLibraryManager library;
    PrintTracks(library.search(text));
    return kOk;
}

bool TrackExists(long long id) {
    Sqlite db;
    bool exists = false;
    if (MediaLibraryManager::GetDb(db) == 0) {
        if (auto st = db.prepare("SELECT 1 FROM tracks WHERE id = ?")) {
            st->bind(1, id);
            exists = st->step() == 100;  // a row
        }
    }
    db.close();
    return exists;
}

int RunRemove(Args& args) {
    long long id = ParseInteger(args.Next("ID"), "ID");
    args.Done();
    if (!TrackExists(id)) throw Failure(kNotFound, "no track " + std::to_string(id));
    MediaLibraryManager library;
    if (library.removeTrack(id) != QV_OK)
        throw Failure(kFailed, "could not remove track " + std::to_string(id));
    std::cout << "removed track " << id << "\n";
    return kOk;
}

// ---- Registration ---------------------------------------------------------------------------

const bool registered_add = Register(
    {"tracks add", "store one track in the media library",
     "usage: qvtool tracks add PATH [--title T] [--artist A] [--album B] [--genre G]\n"
     "                        [--track-no N] [--duration S] [--size BYTES]\n"
     "Stores the track of the file PATH, with the tags given (unknown ones stay empty), in the\n"
     "media library. PATH is absolute, under /mnt/ext1 or, while a card is in the slot,\n"
     "/mnt/ext2; the file itself is not read. A PATH already stored is refused. --duration is in\n"
     "seconds or m:ss.\n",
     RunAdd});

const bool registered_import = Register(
    {"tracks import", "store the tracks of a tab-separated file",
     "usage: qvtool tracks import FILE\n"
     "Stores one track per line of FILE (\"-\" reads standard input). Fields, separated by tabs,\n"
     "all but the first optional:\n"
     "  PATH  TITLE  ARTIST  ALBUM  GENRE  TRACK-NO  DURATION  SIZE\n"
     "Lines that are empty or begin with \"#\" are skipped. The whole file is checked first; a\n"
     "bad line is reported with its number and nothing is stored. Paths already in the library\n"
     "are skipped. A progress line shows on the standard error stream; Ctrl-C stops between two\n"
     "tracks (exit code 130) and keeps those stored.\n",
     RunImport});

const bool registered_list = Register(
    {"tracks list", "list tracks, sorted and filtered",
     "usage: qvtool tracks list [--sort title|track|file|duration|time]\n"
     "                         [--artist X | --album X | --genre X | --folder X] [--exact]\n"
     "Lists the tracks of the storages present. Titles and file names are ordered by the\n"
     "rules of the interface language. A filter value is a prefix, ASCII letters matching either\n"
     "case, \"%\" and \"_\" wildcards; with --exact it must match as it stands. --folder lists a\n"
     "folder with everything below it (and siblings that begin like it); with --exact only that\n"
     "folder.\n",
     RunList});

const bool registered_groups = Register(
    {"tracks groups", "artists, albums, genres or folders with their track counts",
     "usage: qvtool tracks groups artist|album|genre|folder [--desc]\n"
     "Lists the groups in the order of the interface language, ascending unless --desc; the\n"
     "tracks without a value form the group \"(none)\", always last.\n",
     RunGroups});

const bool registered_dirs = Register(
    {"tracks dirs", "the folder browser: directories under PATH with their track counts",
     "usage: qvtool tracks dirs PATH\n"
     "Lists the directories directly under PATH with the number of tracks whose folder path\n"
     "contains PATH/<name> (so \"Music\" counts \"Music2\" as well). \"/mnt\" lists the storages;\n"
     "the system's own trees (/mnt/ext1/system, /mnt/ext1/applications) are never listed.\n",
     RunDirs});

const bool registered_search = Register(
    {"tracks search", "tracks whose title, artist, album or file name contains TEXT",
     "usage: qvtool tracks search TEXT\n"
     "Lists the tracks whose title, artist, album or file name contains TEXT, ASCII letters\n"
     "matching either case, unordered. TEXT can't contain an apostrophe.\n",
     RunSearch});

const bool registered_remove = Register({"tracks rm", "remove one track from the media library",
                                         "usage: qvtool tracks rm ID\n"
                                         "Removes the track ID (see tracks list) and its tags.\n",
                                         RunRemove});

}  // namespace
}  // namespace qvtool
