#include "config_file.h"

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

constexpr const char* kHexPrefix = "$qvx$";
constexpr const char* kSecretPrefix = "$qvs$";
constexpr unsigned char kSecretMask[] = {0x5a, 0x13, 0xc7, 0x2e, 0x91, 0x64, 0x0b, 0xd8,
                                         0x37, 0xaf, 0x72, 0x4c, 0xe5, 0x19, 0x86, 0x3d};
constexpr const char* kBom = "\xEF\xBB\xBF";

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t";
    auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

std::string ToHexMasked(const std::string& bytes, bool mask) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (size_t i = 0; i < bytes.size(); ++i) {
        auto byte = static_cast<unsigned char>(bytes[i]);
        if (mask) byte ^= kSecretMask[i % sizeof kSecretMask];
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
    return out;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::string> FromHexMasked(const std::string& hex, bool mask) {
    if (hex.size() % 2 != 0) return std::nullopt;
    std::string out;
    out.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = HexDigit(hex[i]);
        int low = HexDigit(hex[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        auto byte = static_cast<unsigned char>(high * 16 + low);
        if (mask) byte ^= kSecretMask[(i / 2) % sizeof kSecretMask];
        out += static_cast<char>(byte);
    }
    return out;
}

ConfigValue DecodeValue(const std::string& raw) {
    // A value that merely looks encoded but isn't valid hex stays as written.
    if (StartsWith(raw, kSecretPrefix)) {
        if (auto text = FromHexMasked(raw.substr(5), true)) return {*text, ValueKind::kSecret};
    } else if (StartsWith(raw, kHexPrefix)) {
        if (auto text = FromHexMasked(raw.substr(5), false)) return {*text, ValueKind::kPlain};
    }
    return {raw, ValueKind::kPlain};
}

std::string EncodeValue(const ConfigValue& value) {
    if (value.kind == ValueKind::kSecret) return kSecretPrefix + ToHexMasked(value.text, true);
    bool verbatim =
        value.text.find_first_of("\r\n") == std::string::npos && !StartsWith(value.text, "$qv");
    return verbatim ? value.text : kHexPrefix + ToHexMasked(value.text, false);
}

// The file descriptor of an open configuration file, with its flock.
class LockedFile {
public:
    LockedFile(const std::string& path, int flags, int lock)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (fd_ < 0) return;
        while (::flock(fd_, lock) != 0) {
            if (errno == EINTR) continue;
            ::close(fd_);
            fd_ = -1;
            return;
        }
    }
    ~LockedFile() {
        if (fd_ >= 0) ::close(fd_);  // closing drops the lock
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

std::optional<std::string> ReadWhole(int fd) {
    std::string text;
    char buffer[8192];
    off_t offset = 0;
    for (;;) {
        ssize_t n = ::pread(fd, buffer, sizeof buffer, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return text;
        text.append(buffer, static_cast<size_t>(n));
        offset += n;
    }
}

std::optional<std::string> ReadFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    auto text = ReadWhole(fd);
    ::close(fd);
    return text;
}

bool WriteWhole(int fd, const std::string& text, off_t offset = 0) {
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::pwrite(fd, data, left, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        left -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

// Tests of the save's safety set QV_HOST_SAVE_PAUSE_MS to hold a save with half the new text
// written, so that readers and a kill meet a half-written file for certain, not by luck.
int SavePauseMs() {
    const char* env = std::getenv("QV_HOST_SAVE_PAUSE_MS");
    return env ? std::atoi(env) : 0;
}

bool Rewrite(int fd, const std::string& text) {
    if (::ftruncate(fd, 0) != 0) return false;
    size_t half = text.size() / 2;
    if (int pause = SavePauseMs(); pause > 0) {
        if (!WriteWhole(fd, text.substr(0, half))) return false;
        ::usleep(static_cast<useconds_t>(pause) * 1000);
    } else {
        half = 0;
    }
    return WriteWhole(fd, text.substr(half), static_cast<off_t>(half)) && ::fsync(fd) == 0;
}

std::string JournalPath(const std::string& path) {
    return path + ".saving";
}

// The journal appears only complete: written under a temporary name, synced, then renamed.
bool WriteJournal(const std::string& path, const std::string& text) {
    std::string tmp = JournalPath(path) + "." + std::to_string(::getpid()) + ".tmp";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = WriteWhole(fd, text) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    ok = ok && ::rename(tmp.c_str(), JournalPath(path).c_str()) == 0;
    if (!ok) ::unlink(tmp.c_str());
    return ok;
}

// The text the file stands for: the journal's when a save was cut short, else the file's own.
std::optional<std::string> CurrentText(const std::string& path, int fd) {
    if (auto journal = ReadFile(JournalPath(path))) return journal;
    return ReadWhole(fd);
}

}  // namespace

ConfigDocument ConfigDocument::Parse(const std::string& text) {
    ConfigDocument doc;
    std::istringstream in(StartsWith(text, kBom) ? text.substr(3) : text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        auto eq = line.find('=');
        std::string key = eq == std::string::npos ? std::string() : Trim(line.substr(0, eq));
        // Keys travel as C strings: one holding a zero byte would be taken for the key its first
        // bytes spell. Such a line is kept as it stands, like any line that is not a key.
        if (key.find('\0') != std::string::npos) key.clear();
        if (key.empty()) {
            doc.lines_.push_back({{}, line});
        } else {
            doc.Add({key, line.substr(eq + 1)});
        }
    }
    return doc;
}

void ConfigDocument::Add(Line line) {
    // A key keeps the place of its last occurrence, the one that counts.
    auto [it, inserted] = index_.try_emplace(line.key, lines_.size());
    if (!inserted) {
        lines_[it->second].removed = true;
        it->second = lines_.size();
    }
    lines_.push_back(std::move(line));
}

std::string ConfigDocument::Render() const {
    std::string text;
    for (const auto& line : lines_) {
        if (line.removed) continue;
        if (!line.key.empty()) text += line.key + '=';
        // A kept value that ends in a carriage return (one of "\r\r\n") would lose it to the
        // CRLF rule at the next read: it is written encoded instead.
        bool loses_cr = !line.key.empty() && !line.raw.empty() && line.raw.back() == '\r';
        text += loses_cr ? EncodeValue(DecodeValue(line.raw)) : line.raw;
        text += '\n';
    }
    // Reading drops one byte-order mark at the start: a first key that begins with one keeps it
    // only behind a mark of the file's own.
    return StartsWith(text, kBom) ? kBom + text : text;
}

void ConfigDocument::ForEach(
    const std::function<void(const std::string&, const ConfigValue&)>& visit) const {
    for (const auto& line : lines_) {
        if (!line.key.empty() && !line.removed) visit(line.key, DecodeValue(line.raw));
    }
}

void ConfigDocument::Set(const std::string& key, const ConfigValue& value) {
    auto it = index_.find(key);
    if (it == index_.end()) {
        Add({key, EncodeValue(value)});
    } else {
        lines_[it->second].raw = EncodeValue(value);
    }
}

void ConfigDocument::Remove(const std::string& key) {
    auto it = index_.find(key);
    if (it == index_.end()) return;
    lines_[it->second].removed = true;
    index_.erase(it);
}

bool IsValidKey(const std::string& key) {
    return !key.empty() && key.find_first_of("=\r\n") == std::string::npos && Trim(key) == key;
}

std::string LoadConfigText(const std::string& path) {
    LockedFile file(path, O_RDONLY, LOCK_SH);
    if (file.fd() < 0) return {};
    return CurrentText(path, file.fd()).value_or(std::string());
}

std::optional<std::string> SaveConfigText(const std::string& path,
                                          const std::function<void(ConfigDocument&)>& edit) {
    LockedFile file(path, O_RDWR | O_CREAT, LOCK_EX);
    if (file.fd() < 0) return std::nullopt;
    auto on_disk = ReadWhole(file.fd());
    if (!on_disk) return std::nullopt;
    auto journal = ReadFile(JournalPath(path));
    const std::string& current = journal ? *journal : *on_disk;

    ConfigDocument doc = ConfigDocument::Parse(current);
    edit(doc);
    std::string text = doc.Render();
    if (text == *on_disk && !journal) return text;  // nothing to write, nothing to tell

    if (!WriteJournal(path, text)) return std::nullopt;
    if (!Rewrite(file.fd(), text)) return std::nullopt;  // the journal stands for the file
    ::unlink(JournalPath(path).c_str());
    return text;
}

}  // namespace qvhost
