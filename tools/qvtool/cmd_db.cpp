// qvtool db check [PATH]: runs the set-up of a media library database file, as an application
// does at start, and tells what state the file was found in and what became of it.

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "cli.h"
#include "common_utilities/db_manager_helper.h"
#include "common_utilities/media_library_manager.h"
#include "progress.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::utilities::DbManagerHelper;
using quorvel::utilities::MediaLibraryManager;
using quorvel::utilities::Sqlite;

constexpr const char* kLibraryPath = "/mnt/ext1/system/player-2/player-2.db";
constexpr const char* kLibraryKey = "MediaLibraryDatabaseCorrupted";
constexpr const char* kLibraryScripts = "/zelgrot/share/player-2/scripts.tar.gz";
constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";

struct FileState {
    bool exists = false;
    ino_t inode = 0;
    long long size = 0;
    int marker = 0;
    bool damaged = false;
    int version = 0;
    std::string journal;
    std::optional<long long> tracks;
};

int ReadMarker(const std::string& key) {
    iconfig* cfg = OpenConfig(kGlobalConfig, 0);
    int value = ReadInt(cfg, key.c_str(), 0);
    CloseConfigNoSave(cfg);
    return value;
}

std::optional<std::string> QueryText(Sqlite& db, const char* sql) {
    auto st = db.prepare(sql);
    if (!st || st->step() != SQLITE_ROW) return std::nullopt;
    const char* text = st->column_text(0);
    return std::string(text ? text : "");
}

// Looks without touching: this connection has no corruption handler, so a damaged file is only
// reported, not marked.
FileState Inspect(const std::string& path, const std::string& key, DbManagerHelper& helper) {
    FileState state;
    state.marker = ReadMarker(key);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return state;
    state.exists = true;
    state.inode = st.st_ino;
    state.size = st.st_size;
    Sqlite db;
    if (db.open_no_create(path) == SQLITE_OK) {
        int rc = db.exec("SELECT count(*) FROM sqlite_master");
        state.damaged = rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT;
        if (!state.damaged) {
            state.version = helper.GetVersion(db);
            state.journal = QueryText(db, "PRAGMA journal_mode").value_or("?");
            if (auto count = QueryText(db, "SELECT count(*) FROM tracks"))
                state.tracks = std::stoll(*count);
        }
    }
    db.close();
    return state;
}

std::string Describe(const FileState& state, int expected) {
    if (!state.exists) return "missing";
    if (state.damaged) return "no database (damaged)";
    if (state.version == -1) return "no version table";
    std::string text = "version " + std::to_string(state.version);
    if (state.version != expected) text += " (expected " + std::to_string(expected) + ")";
    return text;
}

std::string TracksText(const FileState& state) {
    return state.tracks ? std::to_string(*state.tracks) : "-";
}

// What GetDb did, judged from the states before and after. A file that was replaced has a new
// inode, and runs without the WAL journal until the next start.
std::string Outcome(int rc, const FileState& before, const FileState& after, int expected) {
    if (rc != 0) {
        std::string text =
            std::string("failed with [") + std::to_string(rc) + "] " + sqlite3_errstr(rc);
        if (after.marker)
            text += "; the file is marked as damaged and is made anew at the next start";
        return text;
    }
    if (!before.exists) return "created at version " + std::to_string(expected);
    if (before.marker) return "deleted as marked damaged, and made anew";
    bool replaced = after.inode != before.inode || after.journal != "wal";
    if (replaced) {
        return "replaced by a new file: the scripts did not bring " + Describe(before, expected) +
               " to version " + std::to_string(expected);
    }
    if (before.version == expected) return "kept as it was";
    return std::string(before.version < expected ? "upgraded" : "downgraded") + " from version " +
           std::to_string(before.version) + " to " + std::to_string(expected);
}

// The set-up's own lines, and those of the programs it runs, go to the standard error stream:
// the standard output keeps the report alone.
int SetUpWithOutputOnStderr(DbManagerHelper& helper, Sqlite& db, const std::string& path) {
    std::fflush(stdout);
    std::cout.flush();
    int saved = ::dup(STDOUT_FILENO);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    int rc = helper.GetDb(db, path);
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
    return rc;
}

int RunCheck(Args& args) {
    int version = 1;
    if (auto value = args.Option("--version"))
        version = static_cast<int>(ParseInteger(*value, "--version"));
    std::string scripts = args.Option("--scripts").value_or(kLibraryScripts);
    std::string key = args.Option("--key").value_or(kLibraryKey);
    std::string path = args.NextOptional().value_or(kLibraryPath);
    args.Done();
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw Failure(kUsage, path + " is a directory");
    // The upgrade hands both paths to the shell as they stand.
    for (const std::string& name : {path, scripts}) {
        if (name.find_first_of(" \t\n'\"\\$`;&|<>()*?[]#~") != std::string::npos)
            throw Failure(kUsage, name +
                                      ": the set-up passes paths to the shell unquoted; choose "
                                      "one without blanks or shell characters");
    }

    DbManagerHelper helper(path, key, version, scripts, MediaLibraryManager::schema_statements);
    FileState before = Inspect(path, key, helper);
    Sqlite db;
    int rc = SetUpWithOutputOnStderr(helper, db, path);
    db.close();
    FileState after = Inspect(path, key, helper);

    Table table({"", "FOUND", "NOW"});
    table.AddRow({"file", Describe(before, version), Describe(after, version)});
    table.AddRow({"size", before.exists ? FormatBytes(static_cast<double>(before.size)) : "-",
                  after.exists ? FormatBytes(static_cast<double>(after.size)) : "-"});
    table.AddRow({"journal", before.journal.empty() ? "-" : before.journal,
                  after.journal.empty() ? "-" : after.journal});
    table.AddRow({"tracks", TracksText(before), TracksText(after)});
    table.AddRow({"marker " + key, std::to_string(before.marker), std::to_string(after.marker)});
    std::cout << path << "\n";
    table.Print(std::cout);
    std::cout << "result: " << Outcome(rc, before, after, version) << "\n";
    return rc == 0 ? kOk : kFailed;
}

const bool registered = Register(
    {"db check", "set up a media library database file and report what was done",
     "usage: qvtool db check [PATH] [--version N] [--scripts ARCHIVE] [--key NAME]\n"
     "Runs the set-up an application runs at start on the database PATH (by default the media\n"
     "library, " +
         std::string(kLibraryPath) +
         "), with the media library's schema: deletes it\n"
         "when the marker NAME of the global configuration says it is damaged, creates it when\n"
         "missing, upgrades or downgrades it to version N (default 1) with the scripts of ARCHIVE\n"
         "(default " +
         kLibraryScripts +
         "), replaces it when that fails.\n"
         "Reports the file as found and as left, and what happened. The set-up's progress goes to\n"
         "the standard error stream. Exit code 1 when the set-up failed.\n",
     RunCheck});

}  // namespace
}  // namespace qvtool
