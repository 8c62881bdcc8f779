#include "host_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace qvhost {
namespace {

void MakeDirs(const std::string& dir) {
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            ::mkdir(dir.substr(0, pos).c_str(), 0755);
        }
    }
}

KeyValues ParseKeyValues(std::istream& in) {
    KeyValues values;
    std::string line;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        values[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return values;
}

// Holds an exclusive lock on a side file for the length of a read-modify-write.
class LockFile {
public:
    explicit LockFile(const std::string& path)
        : fd_(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
    }
    ~LockFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

private:
    int fd_;
};

}  // namespace

std::string StateDir() {
    const char* env = std::getenv("QV_HOST_STATE_DIR");
    return (env && *env) ? env : "/var/run/moorglass-host";
}

void EnsureStateDir() {
    MakeDirs(StateDir());
}

std::string StatePath(const std::string& name) {
    return StateDir() + "/" + name;
}

KeyValues ReadKeyValues(const std::string& path) {
    std::ifstream in(path);
    if (!in) return {};
    return ParseKeyValues(in);
}

bool UpdateKeyValue(const std::string& path, const std::string& key, const char* value) {
    EnsureStateDir();
    LockFile lock(path);
    KeyValues values = ReadKeyValues(path);
    if (value) {
        values[key] = value;
    } else {
        values.erase(key);
    }
    std::ostringstream text;
    for (const auto& [k, v] : values)
        text << k << '=' << v << '\n';
    // Readers don't take the lock: they must see the old file or the new one, never half.
    std::string tmp = path + ".tmp." + std::to_string(::getpid());
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << text.str();
        if (!out.flush()) {
            ::unlink(tmp.c_str());
            return false;
        }
    }
    return ::rename(tmp.c_str(), path.c_str()) == 0;
}

}  // namespace qvhost
