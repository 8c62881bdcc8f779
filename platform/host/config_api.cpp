// The configuration file functions of the host platform.
//
// An `iconfig` handle holds three tables (see moorglass.h): `values`, the plain entries of the
// file as last loaded or saved; `secrets`, the secret entries in clear text; `changes`, the plain
// entries written through this handle since the last save. Every write is also remembered as a
// pending operation, so that:
//  - a refresh (another process saved the file) reloads `values` and `secrets` and keeps the
//    pending writes on top: nothing written here is lost by looking at someone else's save;
//  - a save re-reads the file under its lock and applies only the pending operations, so that
//    keys this process never touched keep what other processes saved in the meantime.
// A key holds either a plain or a secret value; writing one kind drops the other.

#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "config_file.h"
#include "config_hash.h"
#include "moorglass.h"

namespace {

using qvhost::ConfigDocument;
using qvhost::ConfigValue;
using qvhost::HashTable;
using qvhost::ValueKind;

constexpr const char* kGlobalConfigPath = "/mnt/ext1/system/config/global.cfg";

enum class OpKind { kPlain, kSecret, kDelete };

struct PendingOp {
    OpKind kind;
    std::string value;
};

struct FileSignature {
    ino_t inode = 0;
    off_t size = -1;
    timespec mtime{};

    static FileSignature Of(const std::string& path) {
        FileSignature sig;
        struct stat st {};
        if (::stat(path.c_str(), &st) == 0) {
            sig.inode = st.st_ino;
            sig.size = st.st_size;
            sig.mtime = st.st_mtim;
        }
        return sig;
    }
    bool operator==(const FileSignature& o) const {
        return inode == o.inode && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

class ConfigHandle {
public:
    explicit ConfigHandle(std::string path) : path_(std::move(path)) {
        api_.priv = this;
        api_.values = values_.raw();
        api_.secrets = secrets_.raw();
        api_.changes = changes_.raw();
        Reload();
    }

    static ConfigHandle* From(iconfig* cfg) {
        return cfg ? static_cast<ConfigHandle*>(cfg->priv) : nullptr;
    }
    iconfig* api() { return &api_; }
    std::mutex& mutex() { return mutex_; }
    const FileSignature& loaded() const { return loaded_; }

    void Reload() {
        loaded_ = FileSignature::Of(path_);
        Load(qvhost::LoadConfigText(path_));
    }

    int Save() {
        if (pending_.empty()) return 0;
        auto text = qvhost::SaveConfigText(path_, [this](ConfigDocument& doc) { Apply(doc); });
        if (!text) return -1;
        pending_.clear();
        changes_.Clear();
        loaded_ = FileSignature::Of(path_);
        Load(*text);
        return 0;
    }

    const char* Plain(const std::string& key) const {
        const char* value = changes_.Find(key);
        return value ? value : values_.Find(key);
    }
    const char* Secret(const std::string& key) const { return secrets_.Find(key); }

    void WritePlain(const std::string& key, const std::string& value) {
        pending_[key] = {OpKind::kPlain, value};
        changes_.Set(key, value);
        secrets_.Remove(key);
    }
    void WriteSecret(const std::string& key, const std::string& value) {
        pending_[key] = {OpKind::kSecret, value};
        secrets_.Set(key, value);
        changes_.Remove(key);
        values_.Remove(key);
    }
    void Delete(const std::string& key) {
        pending_[key] = {OpKind::kDelete, {}};
        changes_.Remove(key);
        values_.Remove(key);
        secrets_.Remove(key);
    }

private:
    void Load(const std::string& text) {
        values_.Clear();
        secrets_.Clear();
        ConfigDocument::Parse(text).ForEach([this](const std::string& key, const ConfigValue& v) {
            if (v.kind == ValueKind::kSecret) {
                secrets_.Set(key, v.text);
                values_.Remove(key);
            } else {
                values_.Set(key, v.text);
                secrets_.Remove(key);
            }
        });
        for (const auto& [key, op] : pending_) {
            if (op.kind == OpKind::kPlain) {
                secrets_.Remove(key);
            } else if (op.kind == OpKind::kSecret) {
                values_.Remove(key);
                secrets_.Set(key, op.value);
            } else {
                values_.Remove(key);
                secrets_.Remove(key);
            }
        }
    }

    void Apply(ConfigDocument& doc) const {
        for (const auto& [key, op] : pending_) {
            switch (op.kind) {
                case OpKind::kPlain:
                    doc.Set(key, {op.value, ValueKind::kPlain});
                    break;
                case OpKind::kSecret:
                    doc.Set(key, {op.value, ValueKind::kSecret});
                    break;
                case OpKind::kDelete:
                    doc.Remove(key);
                    break;
            }
        }
    }

    iconfig api_{};
    std::string path_;
    HashTable values_;
    HashTable secrets_;
    HashTable changes_;
    std::map<std::string, PendingOp> pending_;
    FileSignature loaded_;
    std::mutex mutex_;
};

std::mutex g_global_mutex;
ConfigHandle* g_global = nullptr;  // lives until the process ends

bool IsGlobal(const ConfigHandle* handle) {
    std::lock_guard<std::mutex> lock(g_global_mutex);
    return handle == g_global;
}

// Runs `fn` on the handle under its lock; `fallback` for a NULL handle.
template <typename Fn, typename R>
R WithHandle(iconfig* cfg, R fallback, Fn fn) {
    ConfigHandle* handle = ConfigHandle::From(cfg);
    if (!handle) return fallback;
    std::lock_guard<std::mutex> lock(handle->mutex());
    return fn(*handle);
}

template <typename Fn>
void WithHandle(iconfig* cfg, Fn fn) {
    ConfigHandle* handle = ConfigHandle::From(cfg);
    if (!handle) return;
    std::lock_guard<std::mutex> lock(handle->mutex());
    fn(*handle);
}

bool Usable(const char* key) {
    return key && qvhost::IsValidKey(key);
}

// The leading integer of the text, as atoi reads it; the default when there is none.
int ParseInt(const char* text, int default_value) {
    if (!text) return default_value;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    return end == text ? default_value : static_cast<int>(value);
}

}  // namespace

extern "C" {

iconfig* OpenConfig(const char* path, int /*mode*/) {
    if (!path || !*path) return nullptr;
    return (new ConfigHandle(path))->api();
}

void CloseConfig(iconfig* cfg) {
    ConfigHandle* handle = ConfigHandle::From(cfg);
    if (!handle) return;
    SaveConfig(cfg);
    if (!IsGlobal(handle)) delete handle;
}

void CloseConfigNoSave(iconfig* cfg) {
    ConfigHandle* handle = ConfigHandle::From(cfg);
    if (handle && !IsGlobal(handle)) delete handle;
}

int SaveConfig(iconfig* cfg) {
    return WithHandle(cfg, -1, [](ConfigHandle& h) { return h.Save(); });
}

void RefreshConfig(iconfig** cfg) {
    if (!cfg) return;
    WithHandle(*cfg, [](ConfigHandle& h) { h.Reload(); });
}

const char* ReadString(iconfig* cfg, const char* key, const char* default_value) {
    if (!key) return default_value;
    return WithHandle(cfg, default_value, [&](ConfigHandle& h) {
        const char* value = h.Plain(key);
        return value ? value : default_value;
    });
}

const char* ReadSecret(iconfig* cfg, const char* key, const char* default_value) {
    if (!key) return default_value;
    return WithHandle(cfg, default_value, [&](ConfigHandle& h) {
        const char* value = h.Secret(key);
        if (!value) value = h.Plain(key);  // a value saved before it became secret
        return value ? value : default_value;
    });
}

int ReadInt(iconfig* cfg, const char* key, int default_value) {
    if (!key) return default_value;
    return WithHandle(cfg, default_value,
                      [&](ConfigHandle& h) { return ParseInt(h.Plain(key), default_value); });
}

void WriteString(iconfig* cfg, const char* key, const char* value) {
    if (!Usable(key)) return;
    WithHandle(cfg, [&](ConfigHandle& h) { h.WritePlain(key, value ? value : ""); });
}

void WriteSecret(iconfig* cfg, const char* key, const char* value) {
    if (!Usable(key)) return;
    WithHandle(cfg, [&](ConfigHandle& h) { h.WriteSecret(key, value ? value : ""); });
}

void WriteInt(iconfig* cfg, const char* key, int value) {
    WriteString(cfg, key, std::to_string(value).c_str());
}

void DeleteString(iconfig* cfg, const char* key) {
    if (!Usable(key)) return;
    WithHandle(cfg, [&](ConfigHandle& h) { h.Delete(key); });
}

iconfig* GetGlobalConfig(void) {
    std::lock_guard<std::mutex> lock(g_global_mutex);
    if (!g_global) {
        g_global = new ConfigHandle(kGlobalConfigPath);
        return g_global->api();
    }
    // The application's settings follow the file: another process may have saved it.
    std::lock_guard<std::mutex> handle_lock(g_global->mutex());
    if (!(FileSignature::Of(kGlobalConfigPath) == g_global->loaded())) g_global->Reload();
    return g_global->api();
}

}  // extern "C"
