// Portable file helpers and code page conversion of the host platform.

#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "moorglass.h"

namespace {

// Makes `dir` and its parents; existing directories are fine.
int MakeDirectories(const std::string& dir) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/') continue;
        std::string part = dir.substr(0, pos);
        if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return -1;
    }
    struct stat st {};
    return (::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool CopyContents(int from, int to) {
    static thread_local char buffer[128 * 1024];
    for (;;) {
        ssize_t n = ::read(from, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        if (!WriteAll(to, buffer, static_cast<size_t>(n))) return false;
    }
}

// "1251" means the Windows code page; anything else is handed to iconv as it stands.
std::string IconvName(const char* encoding) {
    std::string name = encoding ? encoding : "";
    bool digits = !name.empty();
    for (char c : name)
        digits = digits && std::isdigit(static_cast<unsigned char>(c));
    return digits ? "CP" + name : name;
}

}  // namespace

extern "C" {

int mg_buildpath(const char* path) {
    if (!path || !*path) return -1;
    std::string text(path);
    auto slash = text.find_last_of('/');
    if (slash == std::string::npos || slash == 0) return 0;
    return MakeDirectories(text.substr(0, slash));
}

int mg_access(const char* path, int mode) {
    return path ? ::access(path, mode) : -1;
}

int mg_unlink(const char* path) {
    return path ? ::unlink(path) : -1;
}

int mg_mkdir(const char* path, mode_t mode) {
    return path ? ::mkdir(path, mode) : -1;
}

DIR* mg_opendir(const char* path) {
    return path ? ::opendir(path) : nullptr;
}

struct dirent* mg_readdir(DIR* dir) {
    return dir ? ::readdir(dir) : nullptr;
}

int mg_closedir(DIR* dir) {
    return dir ? ::closedir(dir) : -1;
}

int copy_file(const char* from, const char* to) {
    if (!from || !to) return 0;
    int in = ::open(from, O_RDONLY | O_CLOEXEC);
    if (in < 0) return 0;
    struct stat st {};
    if (::fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(in);
        return 0;
    }
    struct stat target {};
    bool same =
        ::stat(to, &target) == 0 && target.st_dev == st.st_dev && target.st_ino == st.st_ino;
    int out = same ? -1 : ::open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 0777);
    if (out < 0) {  // a file copied onto itself would be truncated before it is read
        ::close(in);
        return 0;
    }
    bool ok = CopyContents(in, out);
    // A copy is the same file elsewhere: its permissions (whatever the umask) and its times.
    ok = ok && ::fchmod(out, st.st_mode & 07777) == 0;
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ok = ok && ::futimens(out, times) == 0;
    ok = (::fsync(out) == 0) && ok;
    ok = (::close(out) == 0) && ok;
    ::close(in);
    if (!ok) {
        int error = errno;  // the caller reports why the copy failed, not why the clean-up did
        ::unlink(to);
        errno = error;
    }
    return ok ? 1 : 0;
}

int convert_to_utf(const char* source, char* destination, int size, const char* encoding) {
    if (!source || !destination || size < 1) return -1;
    destination[0] = '\0';
    iconv_t cd = ::iconv_open("UTF-8", IconvName(encoding).c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return -1;
    char* in = const_cast<char*>(source);
    size_t in_left = std::strlen(source);
    char* out = destination;
    size_t out_left = static_cast<size_t>(size) - 1;  // room for the terminator
    size_t rc = ::iconv(cd, &in, &in_left, &out, &out_left);
    ::iconv_close(cd);
    *out = '\0';
    // A text too long for the buffer is cut at a whole character; anything else is an error.
    if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
        destination[0] = '\0';
        return -1;
    }
    return static_cast<int>(out - destination);
}

}  // extern "C"
