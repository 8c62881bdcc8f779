// Helpers of the database set-up and media library tests: real files, real archives of scripts,
// the standard error stream, and a look into a database through a connection of its own.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace mediatest {

// SQLite's codes, spelt out: like an application, the tests build without SQLite's header.
constexpr int kError = 1;
constexpr int kCantOpen = 14;
constexpr int kNotADb = 26;
constexpr int kRow = 100;
constexpr int kDone = 101;

// Collects what is written to file descriptor 2 while it lives: this process's lines and those
// of the programs it starts (tar, the sqlite3 shell, scripts).
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string Text() const;
    // The lines in order, without their line ends.
    std::vector<std::string> Lines() const;

private:
    int saved_fd_;
    int capture_fd_;
};

void WriteFile(const std::string& path, const std::string& content, int mode = 0644);
bool Exists(const std::string& path);
// Inode of the file, 0 when missing: tells a kept file from one made anew.
unsigned long Inode(const std::string& path);

// Packs `scripts` (name -> text) into a gzip-compressed tar archive at `archive`, each at the
// top level; names ending in ".sh" are made executable.
void MakeScriptsArchive(const std::string& archive,
                        const std::map<std::string, std::string>& scripts);

// The corruption marker `key` of the global configuration.
int ReadMarker(const std::string& key);
void SetMarker(const std::string& key, int value);
// A key of the global configuration, saved at once.
void SetGlobal(const std::string& key, const std::string& value);
void SetPlayerConfig(const std::string& key, const std::string& value);

// The first column of every row of `sql`, as text ("NULL" for NULL), through a connection of its
// own; {"<error>"} when the statement can't be prepared.
std::vector<std::string> Query(const std::string& db_path, const std::string& sql);
// The first column of the first row, or "<none>".
std::string QueryOne(const std::string& db_path, const std::string& sql);
void Exec(const std::string& db_path, const std::string& sql);

}  // namespace mediatest
