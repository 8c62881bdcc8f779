#include "common_utilities/filesystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "common_utilities/run_program.h"

namespace quorvel {
namespace system {
namespace filesystem {
namespace {

constexpr size_t kPrefixLength = 9;  // "/mnt/ext1", "/mnt/ext2"
constexpr size_t kStorageIndex = 8;  // the one character that tells the storages apart
constexpr const char* kInternalPrefix = "/mnt/ext1";
constexpr const char* kExternalPrefix = "/mnt/ext2";
constexpr const char* kShellSpecials = " !#$%&()@^`{}~'+,;=[]?<:>|\"";

bool HasPrefix(const std::string& path, const char* prefix) {
    return path.compare(0, kPrefixLength, prefix) == 0;
}

size_t LastSeparator(const std::string& path) {
    return path.find_last_of("/\\");
}

// The directory a copy or a move writes into, with its separator, so that CreateDirectoryTree
// makes the directory itself too; "./" for a bare name.
std::string TargetDirectory(const std::string& dest_file) {
    size_t slash = LastSeparator(dest_file);
    return slash == std::string::npos ? "./" : dest_file.substr(0, slash + 1);
}

bool OnDifferentStorages(const std::string& a, const std::string& b) {
    return a.size() > kPrefixLength && b.size() > kPrefixLength &&
           a[kStorageIndex] != b[kStorageIndex];
}

// The entry's type, asking the file system when the directory listing doesn't say.
unsigned char EntryType(int dir_fd, const dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type;
    struct stat st {};
    if (::fstatat(dir_fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
    if (S_ISDIR(st.st_mode)) return DT_DIR;
    if (S_ISREG(st.st_mode)) return DT_REG;
    if (S_ISLNK(st.st_mode)) return DT_LNK;
    return DT_UNKNOWN;
}

bool IsDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

bool SameFile(int fd, const std::string& path) {
    struct stat a {
    }, b{};
    return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// Copies the contents; on failure logs and gives -1.
int CopyContents(int from, int to, const std::string& file) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        ssize_t n = ::read(from, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            QV_LOG_ERROR("Cant read %s", file.c_str());
            return -1;
        }
        if (n == 0) return 0;
        if (::write(to, buffer.data(), static_cast<size_t>(n)) != n) {
            QV_LOG_ERROR("Can't write whole buffer");
            return -1;
        }
    }
}

int CloseLogged(int fd, const std::string& path) {
    if (::close(fd) == 0) return 0;
    QV_LOG_ERROR("Cant close %s", path.c_str());
    return -1;
}

}  // namespace

bool IsFileExist(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool IsSDCardMounted(const std::string& mount_point) {
    // The system's mount table as its mount program prints it, searched here rather than by a
    // shell pipeline: any mount point can be asked about, and nothing in it runs.
    std::string table;
    if (utilities::RunProgram({"mount"}, &table) != 0) return false;
    return table.find(mount_point) != std::string::npos;
}

bool IsExternalLocation(const std::string& path) {
    return HasPrefix(path, kExternalPrefix);
}

bool IsInternalLocation(const std::string& path) {
    return HasPrefix(path, kInternalPrefix);
}

std::string CutCardPrefix(const std::string& path) {
    return IsExternalLocation(path) ? path.substr(kPrefixLength) : path;
}

std::string GetPrintableFolderName(const std::string& path) {
    const char* key = IsInternalLocation(path)   ? "@DeviceMemory"
                      : IsExternalLocation(path) ? "@SDcard"
                                                 : nullptr;
    if (!key) return path;
    const char* name = GetLangText(key);
    return std::string(name ? name : key) + path.substr(kPrefixLength);
}

std::string GetFileNameFromPath(const std::string& path) {
    size_t slash = LastSeparator(path);
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string GetDirectoryTreeFromPath(const std::string& path) {
    size_t slash = LastSeparator(path);
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string GetExtentionFromPath(const std::string& path) {
    std::string name = GetFileNameFromPath(path);
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

std::string GetShortFileName(const std::string& name) {
    size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(0, dot);
}

std::vector<std::string> GetShortFileName(const std::vector<std::string>& names) {
    std::vector<std::string> result;
    result.reserve(names.size());
    for (const auto& name : names)
        result.push_back(GetShortFileName(name));
    return result;
}

bool MatchExtention(const std::string& path, const std::string& filter) {
    std::string wanted = filter;
    if (filter.size() > 1) {
        size_t dot = filter.find('.');
        if (dot != std::string::npos) wanted = filter.substr(dot + 1);
    }
    if (wanted == "*") return true;
    size_t dot = path.rfind('.');
    std::string extension = dot == std::string::npos ? std::string() : path.substr(dot + 1);
    return mg_strcasecmp(extension.c_str(), wanted.c_str()) == 0;
}

std::vector<std::string> GetFiles(const std::string& dir, const std::string& extensions) {
    std::vector<std::string> filters;
    size_t start = 0;
    for (;;) {
        size_t comma = extensions.find(',', start);
        filters.push_back(extensions.substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    std::vector<std::string> names;
    DIR* handle = mg_opendir(dir.c_str());
    if (!handle) return names;
    while (dirent* entry = mg_readdir(handle)) {
        if (entry->d_name[0] == '.') continue;
        for (const auto& filter : filters) {
            if (MatchExtention(entry->d_name, filter)) {
                names.emplace_back(entry->d_name);
                break;
            }
        }
    }
    mg_closedir(handle);
    return names;
}

std::vector<std::string> GetFiles(const std::vector<std::string>& dirs,
                                  const std::string& extensions) {
    std::vector<std::string> names;
    for (const auto& dir : dirs) {
        std::vector<std::string> found = GetFiles(dir, extensions);
        names.insert(names.end(), found.begin(), found.end());
    }
    return names;
}

std::string AddEscapeSymbols(const std::string& path) {
    std::string escaped;
    escaped.reserve(path.size() * 2);
    for (char c : path) {
        if (c != '\0' && std::strchr(kShellSpecials, c)) escaped += '\\';
        escaped += c;
    }
    return escaped;
}

int CreateDirectoryTree(const std::string& path) {
    for (size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (slash == 0) continue;
        std::string part = path.substr(0, slash);
        if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            int error = errno;
            QV_LOG_ERROR("Can't create directory %s with error: %i", part.c_str(), error);
            return error;
        }
    }
    return 0;
}

int CopyFile(const std::string& file, const std::string& dest_file) {
    QV_RETURN_IF(file.empty() || dest_file.empty(), -1);
    int rc = CreateDirectoryTree(TargetDirectory(dest_file));
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    int from = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (from < 0) {
        QV_LOG_ERROR("Can't open %s for read", file.c_str());
        return -1;
    }
    // Opening the source itself for writing would truncate it before a byte is read.
    if (SameFile(from, dest_file)) {
        QV_LOG_ERROR("Can't copy %s onto itself", file.c_str());
        ::close(from);
        return -1;
    }
    int to = ::open(dest_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (to < 0) {
        QV_LOG_ERROR("Can't open %s for write", dest_file.c_str());
        ::close(from);
        return -1;
    }
    int result = CopyContents(from, to, file);
    if (CloseLogged(to, dest_file) != 0) result = -1;
    if (CloseLogged(from, file) != 0) result = -1;
    // Half a copy looks like a whole one to the next reader: it goes.
    if (result != 0) ::unlink(dest_file.c_str());
    return result;
}

int MoveFile(const std::string& file, const std::string& dest_file) {
    QV_RETURN_IF(file.empty() || dest_file.empty(), -1);
    std::string target =
        dest_file.back() == '/' ? dest_file + GetFileNameFromPath(file) : dest_file;
    int rc = CreateDirectoryTree(TargetDirectory(target));
    if (rc != 0) {
        QV_LOG_ERR(rc);
        return rc;
    }
    errno = 0;
    if (OnDifferentStorages(file, target)) {
        if (copy_file(file.c_str(), target.c_str()) != 1) {
            // The source stays: a move that couldn't copy must not lose the file.
            QV_LOG_ERROR("Can't move file %s to %s (copy), err = %d", file.c_str(), target.c_str(),
                         errno);
            return -1;
        }
        int unlinked = ::unlink(file.c_str());
        if (unlinked != 0) {
            QV_LOG_ERROR("Can't move file %s to %s (unlink), err = %s", file.c_str(),
                         target.c_str(), std::strerror(errno));
        }
        return unlinked;
    }
    int renamed = ::rename(file.c_str(), target.c_str());
    if (renamed != 0) {
        QV_LOG_ERROR("Can't move file %s to %s (rename), err = %s", file.c_str(), target.c_str(),
                     std::strerror(errno));
    }
    return renamed;
}

namespace {

int MoveEntry(const std::string& dest_dir, const std::string& source_dir, int dir_fd,
              const dirent* entry) {
    std::string source = source_dir + "/" + entry->d_name;
    std::string dest = dest_dir + "/" + entry->d_name;
    switch (EntryType(dir_fd, entry)) {
        case DT_DIR: {
            if (!IsFileExist(dest) && mg_mkdir(dest.c_str(), 0777) != 0) {
                QV_LOG_ERROR("Can't create directory [%s]", dest.c_str());
            }
            // A subtree that didn't move must not be removed with its parent.
            return MoveFiles(dest, source, true);
        }
        case DT_REG:
        case DT_LNK:
            return MoveFile(source, dest);
        default:
            return 0;
    }
}

}  // namespace

int MoveFiles(const std::string& dest_dir, const std::string& source_dir, bool remove_source) {
    QV_RETURN_IF(source_dir.empty() || dest_dir.empty(), -1);
    std::unique_ptr<char, decltype(&std::free)> real_source(::realpath(source_dir.c_str(), nullptr),
                                                            &std::free);
    QV_RETURN_IF(!real_source, -1);
    std::unique_ptr<char, decltype(&std::free)> real_dest(::realpath(dest_dir.c_str(), nullptr),
                                                          &std::free);
    QV_RETURN_IF(!real_dest, -1);
    if (std::strncmp(real_dest.get(), real_source.get(), std::strlen(real_source.get())) == 0) {
        return -1;
    }
    DirHandle dir(::opendir(source_dir.c_str()));
    if (!dir) {
        QV_LOG_ERROR("Can't open dir %s , err = %s", source_dir.c_str(), std::strerror(errno));
        return -1;
    }
    while (dirent* entry = ::readdir(dir.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        int rc = MoveEntry(dest_dir, source_dir, ::dirfd(dir.get()), entry);
        if (rc != 0) return rc;
    }
    dir.reset();
    if (remove_source) RemoveDir(source_dir);
    return 0;
}

int RemoveFile(const std::string& path) {
    return ::unlink(path.c_str());
}

int RemoveAllFiles(const std::string& dir) {
    DirHandle handle(::opendir(dir.c_str()));
    if (!handle) {
        QV_LOG_ERROR("Can't open dir %s , err = %s", dir.c_str(), std::strerror(errno));
        return -1;
    }
    int fd = ::dirfd(handle.get());
    int result = 0;
    while (dirent* entry = ::readdir(handle.get())) {
        if (IsDotOrDotDot(entry->d_name)) continue;
        if (EntryType(fd, entry) == DT_DIR) {
            if (RemoveDir(dir + "/" + entry->d_name) != 0) result = -1;
            continue;
        }
        // Relative to the open directory: the same unlink, without walking the path again.
        if (::unlinkat(fd, entry->d_name, 0) != 0) {
            QV_LOG_ERROR("Can't remove file %s , err = %s", (dir + "/" + entry->d_name).c_str(),
                         std::strerror(errno));
            result = -1;
        }
    }
    return result;
}

int RemoveDir(const std::string& dir) {
    QV_RETURN_IF(dir.empty(), -1);
    int rc = RemoveAllFiles(dir);
    if (rc != 0) QV_LOG_ERR(rc);
    int removed = ::rmdir(dir.c_str());
    if (removed != 0) {
        QV_LOG_ERROR("Can't remove dir %s , err = %s", dir.c_str(), std::strerror(errno));
    }
    return removed;
}

int RenameDir(const std::string& dir, const std::string& new_name) {
    int rc = ::rename(dir.c_str(), new_name.c_str());
    if (rc != 0) {
        QV_LOG_ERROR("Can't rename dir %s to %s, err = %s", dir.c_str(), new_name.c_str(),
                     std::strerror(errno));
    }
    return rc;
}

int GetFreeSpace(const std::string& path) {
    if (path.empty()) return -1;
    std::string buffer = path;
    for (;;) {
        struct statfs st {};
        if (::statfs(buffer.c_str(), &st) == 0) {
            unsigned long long bytes = static_cast<unsigned long long>(st.f_bsize) * st.f_bfree;
            return static_cast<int>(bytes >> 20);
        }
        size_t slash = LastSeparator(buffer);
        if (slash == std::string::npos) return -1;
        // Up the tree; "/x" goes on as "/" rather than as nothing.
        buffer.resize(slash == 0 && buffer.size() > 1 ? 1 : slash);
        if (buffer.empty()) return -1;
    }
}

std::string System(const std::string& command) {
    std::fflush(nullptr);
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return {};
    std::string output;
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = ::getline(&line, &capacity, pipe)) >= 0) {
        std::fwrite(line, 1, static_cast<size_t>(length), stdout);
        output.append(line, static_cast<size_t>(length));
    }
    std::free(line);
    ::pclose(pipe);
    return output;
}

}  // namespace filesystem

namespace {

// Opens `path` and reads it whole into `out` (a string or a vector of bytes).
template <typename Bytes>
int ReadWhole(const std::string& path, Bytes* out, std::ios::openmode mode, int level) {
    std::ifstream file(path, mode);
    QV_RETURN_IF(!file, -1);
    QV_LOG(level, "read file %s\n", path.c_str());
    file.seekg(0, std::ios::end);
    std::streamoff size = file.tellg();
    file.seekg(0, std::ios::beg);
    if (size < 0) return -1;
    out->resize(static_cast<size_t>(size));
    if (size > 0 && !file.read(&(*out)[0], size)) return -1;
    return 0;
}

}  // namespace

int FileSystem::ReadFile(const std::string& path, std::vector<char>* out) {
    if (!out) return -1;
    return ReadWhole(path, out, std::ios::in | std::ios::binary, QV_LOG_NOTICE);
}

int FileSystem::ReadFile(const std::string& path, std::string* out) {
    if (!out) return -1;
    return ReadWhole(path, out, std::ios::in, QV_LOG_INFO);
}

int FileSystem::ReadFile(const std::string& path, std::vector<std::string>* out) {
    if (!out) return -1;
    std::ifstream file(path);
    QV_RETURN_IF(!file, -1);
    lines.clear();
    std::string line;
    while (std::getline(file, line))
        lines.push_back(line);
    *out = lines;
    return 0;
}

int FileSystem::WriteFile(const std::string& path, const std::string& data) {
    std::fstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file) return -1;
    file.write(data.data(), static_cast<std::streamsize>(data.size()));
    file.close();
    return file.fail() ? -1 : 0;
}

int FileSystem::Find(const std::string& pattern) {
    return Find(pattern, 0);
}

int FileSystem::Find(const std::string& pattern, unsigned int from) {
    if (from >= lines.size()) return -1;
    position = static_cast<int>(from);
    this->pattern = pattern;
    regex_t expression;
    if (::regcomp(&expression, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return -1;
    int found = -1;
    for (size_t i = from; i < lines.size(); ++i) {
        if (::regexec(&expression, lines[i].c_str(), 0, nullptr, 0) == 0) {
            found = static_cast<int>(i);
            position = found;
            break;
        }
    }
    ::regfree(&expression);
    return found;
}

int FileSystem::FindNext() {
    return Find(pattern, static_cast<unsigned int>(position + 1));
}

}  // namespace system
}  // namespace quorvel
