#include "common_utilities/config.h"

#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common_utilities/serialization_utils.h"

// ReadAllStrings walks the platform's tables by their layout, which is all the platform promises
// of them: the three tables in the second, third and fourth words of a handle, the bucket count in
// the first word of a table and the buckets in its fifth.
static_assert(offsetof(iconfig, values) == 1 * sizeof(void*), "values in the second word");
static_assert(offsetof(iconfig, secrets) == 2 * sizeof(void*), "secrets in the third word");
static_assert(offsetof(iconfig, changes) == 3 * sizeof(void*), "changes in the fourth word");
static_assert(offsetof(ihash, size) == 0, "bucket count in the first word");
static_assert(offsetof(ihash, items) == 4 * sizeof(void*), "buckets in the fifth word");

namespace quorvel {
namespace system {
namespace config {
namespace {

using utilities::SerializationUtils;

constexpr const char* kGlobalConfigPath = "/mnt/ext1/system/config/global.cfg";
constexpr const char* kManualsPath = "/zelgrot/share/manuals.ini";

// Where books never take part in the social reading service: its own files, the system's, and
// scratch files.
constexpr const char* kExcludedPrefixes[] = {
    "/mnt/ext1/system/config/fennorin",
    "/zelgrot",
    "/tmp",
    "/mnt/ext1/applications/.os/",
};

// Cleared when the cache is destroyed at exit. A Conf that lives in static storage and was made
// before the cache's first use is destroyed after it; by then the cache has saved and closed
// everything, and the Conf must not reach for it.
bool g_cache_alive = false;

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Extension(const std::string& path) {
    std::string base = BaseName(path);
    size_t dot = base.rfind('.');
    return dot == std::string::npos ? std::string() : base.substr(dot + 1);
}

void Merge(std::map<std::string, std::string>& into, std::map<std::string, std::string> from) {
    for (auto& entry : from)
        into[entry.first] = std::move(entry.second);
}

bool GlobalSettingEnabled() {
    iconfig* global = GetGlobalConfig();
    bool opened_here = false;
    if (!global) {
        global = ::OpenConfig(kGlobalConfigPath, 0);
        opened_here = global != nullptr;
    }
    bool enabled = global && ::ReadInt(global, "fennorin_status", 1) != 0;
    if (opened_here) ::CloseConfig(global);
    return enabled;
}

bool Excluded(const std::string& path) {
    for (const char* prefix : kExcludedPrefixes) {
        if (StartsWith(path, prefix)) return true;
    }
    std::string extension = Extension(path);
    return strcasecmp(extension.c_str(), "doc") == 0 || strcasecmp(extension.c_str(), "docx") == 0;
}

// The manuals list ships with the system and doesn't change while we run: it is opened once and
// kept, and opened again only if that failed.
bool ManualEnabled(const std::string& path) {
    static iconfig* manuals = nullptr;
    if (!manuals) manuals = ::OpenConfig(kManualsPath, 0);
    return !manuals || ::ReadInt(manuals, BaseName(path).c_str(), 1) != 0;
}

}  // namespace

// ---- Listner --------------------------------------------------------------------------------

void Listner::Changed() {
    if (cfg) RefreshConfig(&cfg);
}

// ---- Config ---------------------------------------------------------------------------------

Config& Config::GetInstance() {
    static Config instance;
    return instance;
}

Config::Config() {
    g_cache_alive = true;
}

Config::~Config() {
    // Delayed saves are carried out here, at the exit of the process.
    while (!params_.empty()) {
        std::string path = params_.begin()->first;
        CloseConfig(path, params_.begin()->second->save_flag);
    }
    g_cache_alive = false;
}

iconfig* Config::OpenConfig(const std::string& file) {
    if (file.empty()) return nullptr;
    auto found = params_.find(file);
    if (found != params_.end()) return found->second->cfg;

    QV_LOG_INFO("Open config %s", file.c_str());
    ConfigParam& param =
        *params_.emplace(file, std::make_unique<ConfigParam>(nullptr)).first->second;
    // Watching starts before the file is read, so that a save in between can't go unnoticed.
    AddWatch(file, &param.listner);
    param.cfg = ::OpenConfig(file.c_str(), 0);
    param.listner.cfg = param.cfg;
    return param.cfg;
}

iconfig* Config::GetConfig(const std::string& file) const {
    ConfigParam* param = GetParam(file);
    return param ? param->cfg : nullptr;
}

ConfigParam* Config::GetParam(const std::string& file) const {
    auto found = params_.find(file);
    return found == params_.end() ? nullptr : found->second.get();
}

void Config::CloseConfig(const std::string& file, bool save) {
    if (file.empty()) return;
    auto found = params_.find(file);
    if (found == params_.end()) return;
    ConfigParam& param = *found->second;
    DeleteWatch(file, &param.listner);
    if (save) {
        QV_LOG_INFO("Save and close config %s", file.c_str());
        ::CloseConfig(param.cfg);
    } else {
        QV_LOG_INFO("Close config %s", file.c_str());
        ::CloseConfigNoSave(param.cfg);
    }
    params_.erase(found);
}

void Config::SaveConfig(const std::string& file, bool save_now) {
    ConfigParam* param = file.empty() ? nullptr : GetParam(file);
    if (!param) return;
    if (!save_now) {
        param->save_flag = true;
        return;
    }
    QV_LOG_INFO("Save config %s", file.c_str());
    ::SaveConfig(param->cfg);
}

void Config::SetSaveFlag(const std::string& file, bool value) {
    if (ConfigParam* param = GetParam(file)) param->save_flag = value;
}

void Config::Refresh(const std::string& file) {
    iconfig* cfg = OpenConfig(file);
    if (cfg) RefreshConfig(&cfg);
}

iconfig* Config::OpenForReading(const std::string& file) {
    // What another process saved since the last read is loaded first.
    CheckChanges();
    return OpenConfig(file);
}

std::string Config::ReadString(const std::string& file, const std::string& key,
                               const std::string& default_value) {
    if (file.empty() || key.empty()) return default_value;
    iconfig* cfg = OpenForReading(file);
    const char* value = ::ReadString(cfg, key.c_str(), default_value.c_str());
    return value ? std::string(value) : default_value;
}

std::string Config::ReadSecret(const std::string& file, const std::string& key,
                               const std::string& default_value) {
    if (file.empty() || key.empty()) return default_value;
    iconfig* cfg = OpenForReading(file);
    const char* value = ::ReadSecret(cfg, key.c_str(), default_value.c_str());
    return value ? std::string(value) : default_value;
}

int Config::ReadInt(const std::string& file, const std::string& key, int default_value) {
    if (file.empty() || key.empty()) return default_value;
    return ::ReadInt(OpenForReading(file), key.c_str(), default_value);
}

void Config::WriteInt(const std::string& file, const std::string& key, int value, bool save_now) {
    if (file.empty() || key.empty()) return;
    ::WriteInt(OpenConfig(file), key.c_str(), value);
    SaveConfig(file, save_now);
}

void Config::WriteString(const std::string& file, const std::string& key, const std::string& value,
                         bool save_now) {
    if (file.empty() || key.empty()) return;
    ::WriteString(OpenConfig(file), key.c_str(), value.c_str());
    SaveConfig(file, save_now);
}

void Config::WriteSecret(const std::string& file, const std::string& key, const std::string& value,
                         bool save_now) {
    if (file.empty() || key.empty()) return;
    ::WriteSecret(OpenConfig(file), key.c_str(), value.c_str());
    SaveConfig(file, save_now);
}

void Config::TrueWriteSecret(const std::string& file, const std::string& key,
                             const std::string& value, bool save_now) {
    WriteSecret(file, key, value, save_now);
}

void Config::DeleteString(const std::string& file, const std::string& key, bool save_now) {
    if (file.empty()) return;
    ::DeleteString(OpenConfig(file), key.c_str());
    SaveConfig(file, save_now);
}

std::map<std::string, std::string> Config::ReadAllStrings(const std::string& file,
                                                          const std::string& prefix) {
    if (file.empty()) return {};
    iconfig* cfg = OpenForReading(file);
    if (!cfg) return {};
    // Unsaved writes stand over what was loaded, and a secret over a plain value of its key.
    std::map<std::string, std::string> entries = HashFind(cfg->values, prefix);
    Merge(entries, HashFind(cfg->changes, prefix));
    Merge(entries, HashFind(cfg->secrets, prefix));
    return entries;
}

std::map<std::string, std::string> Config::HashFind(ihash_s const* hash,
                                                    const std::string& prefix) {
    std::map<std::string, std::string> entries;
    if (!hash || hash->size < 1 || !hash->items) return entries;
    for (int bucket = 0; bucket < hash->size; ++bucket) {
        for (const ihash_item* node = hash->items[bucket]; node; node = node->next) {
            if (!node->key) continue;
            if (!prefix.empty() && std::strncmp(node->key, prefix.c_str(), prefix.size()) != 0) {
                continue;
            }
            entries[node->key] = node->value ? node->value : "";
        }
    }
    return entries;
}

// ---- Conf -----------------------------------------------------------------------------------

Conf::Conf() = default;

Conf::Conf(const std::string& file) {
    Open(file);
}

Conf::~Conf() {
    Close();
}

void Conf::Open(const std::string& file) {
    name = file;
}

void Conf::Close() {
    if (g_cache_alive) Config::GetInstance().CloseConfig(name, true);
}

void Conf::Save() {
    Config::GetInstance().SaveConfig(name, true);
}

std::string Conf::ReadString(const std::string& key, const std::string& default_value) {
    return Config::GetInstance().ReadString(name, key, default_value);
}

void Conf::WriteString(const std::string& key, const std::string& value, bool save_now) {
    if (name.empty() || key.empty()) return;
    Config::GetInstance().WriteString(name, key, value, save_now);
}

time_t Conf::ReadTime(const std::string& key, time_t default_value) {
    std::string text = ReadString(key, "");
    if (text.empty()) return default_value;
    SerializationUtils::Bytes data = SerializationUtils::FromBase64(text);
    int32_t result = 0;
    QV_RETURN_IF(sizeof(result) != data.size(), 0);
    uint32_t bits = static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
                    static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
    std::memcpy(&result, &bits, sizeof result);
    return static_cast<time_t>(result);
}

void Conf::WriteTime(const std::string& key, time_t value, bool save_now) {
    // Little-endian whatever the machine: that is the device's order, so files stay readable
    // wherever they are copied.
    auto bits = static_cast<uint32_t>(value);
    SerializationUtils::Bytes data = {
        static_cast<unsigned char>(bits), static_cast<unsigned char>(bits >> 8),
        static_cast<unsigned char>(bits >> 16), static_cast<unsigned char>(bits >> 24)};
    WriteString(key, SerializationUtils::ToBase64(data), save_now);
}

// ---- IsFennorinForFileEnabled ---------------------------------------------------------------

bool IsFennorinForFileEnabled(const std::string& path) {
    if (path.empty()) return false;
    if (!GlobalSettingEnabled()) return false;
    if (Excluded(path)) return false;
    return ManualEnabled(path);
}

}  // namespace config
}  // namespace system

// ---- CfgWrapper -----------------------------------------------------------------------------

namespace utilities {

CfgWrapper::CfgWrapper(const std::string& file, OpenMode mode)
    : cfg_(OpenConfig(file.c_str(), 0)), mode_(mode) {}

CfgWrapper::~CfgWrapper() {
    if (!cfg_) return;
    if (mode_ == kSaveAndClose) {
        CloseConfig(cfg_);
    } else if (mode_ == kCloseNoSave) {
        CloseConfigNoSave(cfg_);
    }
    cfg_ = nullptr;
}

bool CfgWrapper::isOpened() const {
    return cfg_ != nullptr;
}

iconfig* CfgWrapper::handle() const {
    return cfg_;
}

void CfgWrapper::save() {
    SaveConfig(cfg_);
}

void CfgWrapper::saveAndClose() {
    CloseConfig(cfg_);
    cfg_ = nullptr;
}

void CfgWrapper::closeNoSave() {
    CloseConfigNoSave(cfg_);
    cfg_ = nullptr;
}

void CfgWrapper::remove(const std::string& key) {
    DeleteString(cfg_, key.c_str());
}

}  // namespace utilities
}  // namespace quorvel
