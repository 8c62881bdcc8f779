// qvtool fs mv | cp | rm | ls | free: the library's file operations on the device's storages.
//
// A folder moved to the other storage goes file by file through MoveFile (copy, then unlink),
// behind a progress bar; Ctrl-C stops between two files, so every file is whole in one place or
// the other. Within one storage a folder is renamed at once.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/filesystem.h"
#include "progress.h"

namespace qvtool {
namespace {

namespace fs = quorvel::system::filesystem;

volatile std::sig_atomic_t g_stop = 0;

void OnStop(int) {
    g_stop = 1;
}

struct Item {
    std::string relative;  // below the folder moved
    uint64_t size = 0;
};

struct Tree {
    std::vector<Item> files;
    std::vector<std::string> folders;  // parents before their children
    uint64_t bytes = 0;
};

bool Stat(const std::string& path, struct stat* st) {
    return ::lstat(path.c_str(), st) == 0;
}

void Collect(const std::string& root, const std::string& relative, Tree& tree) {
    DIR* dir = ::opendir((root + relative).c_str());
    if (!dir) throw Failure(kFailed, "can't read the folder " + root + relative);
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string path = relative + "/" + name;
        struct stat st {};
        if (!Stat(root + path, &st)) continue;
        if (S_ISDIR(st.st_mode)) {
            tree.folders.push_back(path);
            Collect(root, path, tree);
        } else if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) {
            tree.files.push_back({path, static_cast<uint64_t>(st.st_size)});
            tree.bytes += static_cast<uint64_t>(st.st_size);
        }
    }
    ::closedir(dir);
}

// The device of a path, or of its nearest existing parent.
dev_t DeviceOf(std::string path) {
    struct stat st {};
    while (!path.empty() && ::stat(path.c_str(), &st) != 0) {
        size_t slash = path.rfind('/');
        path = slash == std::string::npos ? "" : path.substr(0, slash == 0 ? 1 : slash);
        if (path == "/") break;
    }
    if (path.empty()) path = ".";
    ::stat(path.c_str(), &st);
    return st.st_dev;
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string Resolved(const std::string& path) {
    char* real = ::realpath(path.c_str(), nullptr);
    std::string text = real ? real : path;
    std::free(real);
    return text;
}

std::string Trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

void RequireSpace(const std::string& target, uint64_t bytes) {
    int free_mb = fs::GetFreeSpace(target);
    if (free_mb >= 0 && bytes > (static_cast<uint64_t>(free_mb) << 20)) {
        throw Failure(kFailed, "not enough space for " + FormatBytes(static_cast<double>(bytes)) +
                                   " on " + fs::GetPrintableFolderName(target) + " (" +
                                   std::to_string(free_mb) + " MB free); nothing moved");
    }
}

int MoveFolderAcross(const std::string& source, const std::string& target) {
    Tree tree;
    Collect(source, "", tree);
    RequireSpace(target, tree.bytes);
    if (fs::CreateDirectoryTree(target + "/") != 0) {
        throw Failure(kFailed, "can't make the folder " + target);
    }
    for (const auto& folder : tree.folders)
        fs::CreateDirectoryTree(target + folder + "/");

    std::signal(SIGINT, OnStop);
    Progress progress("moving", tree.bytes, Progress::Unit::kBytes);
    uint64_t done = 0;
    size_t moved = 0;
    for (const Item& item : tree.files) {
        if (g_stop) {
            progress.Finish();
            std::cerr << "stopped: " << moved << " of " << tree.files.size()
                      << " files moved; the rest is still in " << source << '\n';
            return kInterrupted;
        }
        if (fs::MoveFile(source + item.relative, target + item.relative) != 0) {
            throw Failure(kFailed, "can't move " + source + item.relative + "; " +
                                       std::to_string(moved) +
                                       " files moved, the rest is still in " + source);
        }
        done += item.size;
        ++moved;
        progress.Update(done);
    }
    progress.Finish();
    // Only folders left empty go: anything that appeared meanwhile stays.
    for (auto folder = tree.folders.rbegin(); folder != tree.folders.rend(); ++folder)
        ::rmdir((source + *folder).c_str());
    ::rmdir(source.c_str());
    std::cout << "moved " << moved << " files (" << FormatBytes(static_cast<double>(tree.bytes))
              << ") to " << target << '\n';
    return kOk;
}

int RunMove(Args& args) {
    std::string source = Trimmed(args.Next("SOURCE"));
    std::string dest = args.Next("DEST");
    args.Done();
    struct stat st {};
    if (!Stat(source, &st)) throw Failure(kNotFound, "no such file or folder: " + source);
    bool into = IsDirectory(dest) || dest.back() == '/';
    std::string target = into ? Trimmed(dest) + "/" + fs::GetFileNameFromPath(source) : dest;
    if (Stat(target, &st) && S_ISDIR(st.st_mode) && IsDirectory(source)) {
        throw Failure(kFailed, target + " exists already");
    }
    bool across = DeviceOf(source) != DeviceOf(target);

    if (!IsDirectory(source)) {
        if (across) RequireSpace(target, static_cast<uint64_t>(st.st_size));
        if (fs::MoveFile(source, target) != 0) throw Failure(kFailed, "can't move " + source);
        std::cout << "moved " << source << " to " << target << '\n';
        return kOk;
    }
    std::string real_source = Resolved(source);
    std::string real_target = Resolved(fs::GetDirectoryTreeFromPath(target));
    if ((real_target + "/").rfind(real_source + "/", 0) == 0) {
        throw Failure(kFailed, "can't move " + source + " into itself");
    }
    if (across) return MoveFolderAcross(source, target);
    fs::CreateDirectoryTree(target);
    if (fs::RenameDir(source, target) != 0) throw Failure(kFailed, "can't move " + source);
    std::cout << "moved " << source << " to " << target << '\n';
    return kOk;
}

int RunCopy(Args& args) {
    std::string source = args.Next("SOURCE");
    std::string dest = args.Next("DEST");
    args.Done();
    struct stat st {};
    if (::stat(source.c_str(), &st) != 0) throw Failure(kNotFound, "no such file: " + source);
    if (S_ISDIR(st.st_mode)) throw Failure(kUsage, source + " is a folder: fs cp copies files");
    std::string target = IsDirectory(dest) || dest.back() == '/'
                             ? Trimmed(dest) + "/" + fs::GetFileNameFromPath(source)
                             : dest;
    RequireSpace(target, static_cast<uint64_t>(st.st_size));
    if (fs::CopyFile(source, target) != 0) throw Failure(kFailed, "can't copy " + source);
    std::cout << "copied " << source << " to " << target << '\n';
    return kOk;
}

int RunRemove(Args& args) {
    std::string path = args.Next("PATH");
    args.Done();
    struct stat st {};
    if (!Stat(path, &st)) throw Failure(kNotFound, "no such file or folder: " + path);
    int rc = S_ISDIR(st.st_mode) ? fs::RemoveDir(Trimmed(path)) : fs::RemoveFile(path);
    if (rc != 0) throw Failure(kFailed, "can't remove all of " + path);
    return kOk;
}

int RunList(Args& args) {
    std::string dir = args.Next("FOLDER");
    std::string extensions = args.NextOptional().value_or("*");
    args.Done();
    if (!IsDirectory(dir)) throw Failure(kNotFound, "no such folder: " + dir);
    std::vector<std::string> names = fs::GetFiles(dir, extensions);
    std::sort(names.begin(), names.end());
    for (const auto& name : names)
        std::cout << name << '\n';
    return kOk;
}

int RunFree(Args& args) {
    std::string path = args.Next("PATH");
    args.Done();
    int free_mb = fs::GetFreeSpace(path);
    if (free_mb < 0) throw Failure(kNotFound, "no storage holds " + path);
    std::cout << free_mb << " MB free on " << fs::GetPrintableFolderName(path) << '\n';
    return kOk;
}

const bool registered_mv = Register(
    {"fs mv", "move a file or a folder, across the storages too",
     "usage: qvtool fs mv SOURCE DEST\n"
     "Moves a file or a folder. DEST is the new path, or an existing folder (or one written with\n"
     "a final '/') to move into. Between the internal storage (/mnt/ext1) and the card\n"
     "(/mnt/ext2) files are copied, keeping their permissions and times, then removed, behind a\n"
     "progress bar; a move that wouldn't fit is refused before it starts. Ctrl-C stops between\n"
     "two files (exit 130): each file is then whole in one place or the other.\n",
     RunMove});

const bool registered_cp = Register({"fs cp", "copy a file",
                                     "usage: qvtool fs cp FILE DEST\n"
                                     "Copies FILE to DEST (a path, or a folder to copy into),\n"
                                     "making the folders it needs. A failed copy leaves nothing.\n",
                                     RunCopy});

const bool registered_rm = Register({"fs rm", "remove a file, or a folder with all it holds",
                                     "usage: qvtool fs rm PATH\n", RunRemove});

const bool registered_ls = Register(
    {"fs ls", "list a folder, filtered by extension",
     "usage: qvtool fs ls FOLDER [EXTENSIONS]\n"
     "Names in FOLDER (sorted; hidden ones left out) whose extension is one of the\n"
     "comma-separated EXTENSIONS, ignoring case: 'epub,fb2', '*.txt', or '*' (the default).\n",
     RunList});

const bool registered_free =
    Register({"fs free", "free space of the storage of a path",
              "usage: qvtool fs free PATH\n"
              "Free megabytes of the storage that holds PATH, or would hold it once made.\n",
              RunFree});

}  // namespace
}  // namespace qvtool
