#include "state_file_cache.h"

#include <cstdlib>

namespace qvhost {

bool StateFileCache::Signature::operator==(const Signature& other) const {
    return exists == other.exists && device == other.device && inode == other.inode &&
           size == other.size && mtime.tv_sec == other.mtime.tv_sec &&
           mtime.tv_nsec == other.mtime.tv_nsec;
}

StateFileCache::Signature StateFileCache::SignatureOf(const std::string& path) {
    Signature signature;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return signature;
    signature.exists = true;
    signature.device = st.st_dev;
    signature.inode = st.st_ino;
    signature.size = st.st_size;
    signature.mtime = st.st_mtim;
    return signature;
}

std::string StateFileCache::Get(const std::string& key, const std::string& fallback) {
    std::string path = Path();  // the state directory may change between calls (tests)
    Signature now = SignatureOf(path);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!loaded_ || path != loaded_path_ || !(now == signature_)) {
        values_ = now.exists ? ReadKeyValues(path) : KeyValues{};
        signature_ = now;
        loaded_path_ = path;
        loaded_ = true;
    }
    auto it = values_.find(key);
    return it == values_.end() ? fallback : it->second;
}

int StateFileCache::GetInt(const std::string& key, int fallback) {
    std::string text = Get(key, "");
    if (text.empty()) return fallback;
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    return *end == '\0' ? static_cast<int>(value) : fallback;
}

void StateFileCache::Set(const std::string& key, const char* value) {
    UpdateKeyValue(Path(), key, value);
}

}  // namespace qvhost
