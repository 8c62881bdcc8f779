// File operations of the device's applications: moving and copying across the internal storage
// ("/mnt/ext1") and the card ("/mnt/ext2"), recursive removal, listing by extension, and path
// helpers that know the device's layout. Functions give 0 for success and -1 or the failing
// system call's result otherwise, and log failures at level 1.
//
// The storage of a path is told by one character: two paths longer than 9 characters whose
// characters at index 8 differ ("/mnt/ext1..." and "/mnt/ext2...") lie on different storages, and
// a move between them is a copy followed by an unlink; anything else is a rename. A failed copy
// never unlinks the source, so a move onto a full card leaves the file where it was.
//
// Nothing here takes a lock: concurrent moves of the same files are the callers' business.
#pragma once

#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace system {
namespace filesystem {

QV_EXPORT bool IsFileExist(const std::string& path);
// Runs `mount | grep "<mount_point>" > /dev/null`: true when the point is in the mount table.
QV_EXPORT bool IsSDCardMounted(const std::string& mount_point);
// By the first 9 characters, "/mnt/ext2" or "/mnt/ext1".
QV_EXPORT bool IsExternalLocation(const std::string& path);
QV_EXPORT bool IsInternalLocation(const std::string& path);
// The path without "/mnt/ext2"; any other path as it stands.
QV_EXPORT std::string CutCardPrefix(const std::string& path);
// "/mnt/ext1/Books" as the user reads it: the translated storage name, then the rest.
QV_EXPORT std::string GetPrintableFolderName(const std::string& path);

// The text behind the last "/" or "\", and the text before it.
QV_EXPORT std::string GetFileNameFromPath(const std::string& path);
QV_EXPORT std::string GetDirectoryTreeFromPath(const std::string& path);
// The text behind the last "." of the file name ("" when it has none).
QV_EXPORT std::string GetExtentionFromPath(const std::string& path);
// The text before the last "." (the name itself when it has none).
QV_EXPORT std::string GetShortFileName(const std::string& name);
QV_EXPORT std::vector<std::string> GetShortFileName(const std::vector<std::string>& names);
// `filter` is an extension or a mask ("txt", "*.txt", "*"); compared ignoring case.
QV_EXPORT bool MatchExtention(const std::string& path, const std::string& filter);
// Names (no path, in the order of reading) of the entries of `dir` that match one of the
// comma-separated `extensions`; names beginning with "." are skipped. A missing directory gives
// an empty list.
QV_EXPORT std::vector<std::string> GetFiles(const std::string& dir, const std::string& extensions);
QV_EXPORT std::vector<std::string> GetFiles(const std::vector<std::string>& dirs,
                                            const std::string& extensions);
// A backslash before every character the shell would read as syntax.
QV_EXPORT std::string AddEscapeSymbols(const std::string& path);

// Makes every directory up to the last "/" of `path` (mode 0777); 0 or the failing errno.
QV_EXPORT int CreateDirectoryTree(const std::string& path);
// Copies a file, making the target's directories. A failed copy removes what it wrote.
QV_EXPORT int CopyFile(const std::string& file, const std::string& dest_file);
// Moves a file; a `dest_file` ending in "/" is a directory that takes the file's name.
QV_EXPORT int MoveFile(const std::string& file, const std::string& dest_file);
// Moves the contents of `source_dir` into the existing `dest_dir`, recursively, and removes
// `source_dir` after if `remove_source` (its subfolders go in any case). -1 when the
// destination's real path begins with the source's (so also for a sibling "/a/bc" of "/a/b") or
// something fails; what was moved before a failure stays moved, the rest stays
// where it was, and the source is then left in place.
QV_EXPORT int MoveFiles(const std::string& dest_dir, const std::string& source_dir,
                        bool remove_source);
QV_EXPORT int RemoveFile(const std::string& path);
// Empties a directory, recursively; -1 when it can't be opened or something stays behind.
QV_EXPORT int RemoveAllFiles(const std::string& dir);
QV_EXPORT int RemoveDir(const std::string& dir);
// `new_name` is the whole new path, as rename(2) takes it.
QV_EXPORT int RenameDir(const std::string& dir, const std::string& new_name);
// Free megabytes of the file system of `path`, or of its nearest existing parent; -1 if none.
QV_EXPORT int GetFreeSpace(const std::string& path);
// Runs a shell command; its output, which is also echoed to the standard output stream.
QV_EXPORT std::string System(const std::string& command);

}  // namespace filesystem

// Reads whole files and searches their lines with extended regular expressions.
class QV_EXPORT FileSystem {
public:
    int ReadFile(const std::string& path, std::vector<char>* out);
    int ReadFile(const std::string& path, std::vector<char>& out) { return ReadFile(path, &out); }
    int ReadFile(const std::string& path, std::string* out);
    int ReadFile(const std::string& path, std::string& out) { return ReadFile(path, &out); }
    // Line by line, also kept in `lines` for Find.
    int ReadFile(const std::string& path, std::vector<std::string>* out);
    int ReadFile(const std::string& path, std::vector<std::string>& out) {
        return ReadFile(path, &out);
    }
    // Replaces the file with `data`.
    int WriteFile(const std::string& path, const std::string& data);

    // Index of the first line of `lines`, at or after `from`, that matches; -1 when none does or
    // the pattern is not a valid expression.
    int Find(const std::string& pattern);
    int Find(const std::string& pattern, unsigned int from);
    // The next match of the last pattern.
    int FindNext();

    std::vector<std::string> lines;
    int position = -1;
    std::string pattern;
};

}  // namespace system
}  // namespace quorvel
