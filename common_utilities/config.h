// Cached access to the device's configuration files, shared by all the processes of the device.
//
// A file is opened once per process and its handle kept in the cache of Config, keyed by path.
// Every read first polls the inotify watches of the cache, so that a file another process saved
// is reloaded before the read: a value saved elsewhere is seen by the next read here. Writes go to
// the cached handle; with save_now false the file is written later, by the next save of that file
// or when the process exits normally (the cache's destructor saves what was marked).
//
// There is no reference count: everyone in the process shares one handle per path, and the first
// CloseConfig of a path ends it for all (a later read opens the file anew). Conf closes, and so
// saves, its file in its destructor.
//
// Config takes no lock: use it from one thread at a time, as the rest of the configuration layer.
// The Wi-Fi worker never uses it: it gets a saved copy of the file it needs (see network.h).
// Between processes the file itself is the only link, and the last save wins.
#pragma once

#include <ctime>
#include <map>
#include <memory>
#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/configuration_watch.h"

namespace quorvel {
namespace system {
namespace config {

// Reloads the cached handle when its file changed. The platform may replace the handle in this
// copy; the cache keeps the one it opened.
class QV_EXPORT Listner : public utilities::ConfigurationMultiWatch::Notify {
public:
    explicit Listner(iconfig* cfg) : cfg(cfg) {}
    void Changed() override;

    iconfig* cfg;
};

// One cached file: its handle (null when it couldn't be opened; not retried), its watch
// listener, and whether a delayed save is pending.
struct QV_EXPORT ConfigParam {
    explicit ConfigParam(iconfig* handle) : cfg(handle), listner(handle), save_flag(false) {}

    iconfig* cfg;
    Listner listner;
    bool save_flag;
};

class QV_EXPORT Config : public utilities::ConfigurationMultiWatch {
public:
    // The one cache of the process, made at first use and destroyed at exit.
    static Config& GetInstance();

    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // From the cache, opened and watched if new; null for an empty path.
    iconfig* OpenConfig(const std::string& file);
    // From the cache only; null when the file isn't open.
    iconfig* GetConfig(const std::string& file) const;
    ConfigParam* GetParam(const std::string& file) const;
    // Ends the cached handle for every user of the path, saving it first if `save`.
    void CloseConfig(const std::string& file, bool save);
    // Writes the file now, or with `save_now` false only marks it for a later save.
    void SaveConfig(const std::string& file, bool save_now);
    void SetSaveFlag(const std::string& file, bool value);
    void Refresh(const std::string& file);

    // Reads see changes that other processes saved; an empty file name or key gives the
    // default and touches nothing.
    std::string ReadString(const std::string& file, const std::string& key,
                           const std::string& default_value);
    std::string ReadSecret(const std::string& file, const std::string& key,
                           const std::string& default_value);
    int ReadInt(const std::string& file, const std::string& key, int default_value);

    // An empty file name or key does nothing (DeleteString tests the file name only).
    void WriteInt(const std::string& file, const std::string& key, int value, bool save_now);
    void WriteString(const std::string& file, const std::string& key, const std::string& value,
                     bool save_now);
    void WriteSecret(const std::string& file, const std::string& key, const std::string& value,
                     bool save_now);
    void TrueWriteSecret(const std::string& file, const std::string& key, const std::string& value,
                         bool save_now);
    void DeleteString(const std::string& file, const std::string& key, bool save_now);

    // Every entry whose key begins with `prefix` (all for an empty one), secrets in clear text and
    // unsaved writes included; keys keep their prefix.
    std::map<std::string, std::string> ReadAllStrings(const std::string& file,
                                                      const std::string& prefix);
    // The entries of one platform table whose key begins with `prefix`.
    static std::map<std::string, std::string> HashFind(ihash_s const* hash,
                                                       const std::string& prefix);

private:
    Config();
    ~Config();

    // Polls the watches and opens the file: the common start of every read.
    iconfig* OpenForReading(const std::string& file);

    std::map<std::string, std::unique_ptr<ConfigParam>> params_;
};

// A named file of the cache, with no handle of its own.
class QV_EXPORT Conf {
public:
    Conf();
    explicit Conf(const std::string& file);
    // Closes the file, saved, for every other user of it too.
    virtual ~Conf();

    void Open(const std::string& file);
    void Close();
    void Save();

    std::string ReadString(const std::string& key, const std::string& default_value);
    void WriteString(const std::string& key, const std::string& value, bool save_now);

    // Times are stored as the Base64 text of 4 bytes: a 32-bit time, little-endian. Times past
    // January 2038 don't fit and come back wrapped. An absent key gives the default; a text that
    // isn't 4 bytes gives 0 (logged).
    time_t ReadTime(const std::string& key, time_t default_value);
    void WriteTime(const std::string& key, time_t value, bool save_now);

private:
    std::string name;
};

// Whether a book file takes part in the social reading service: not when the service is off in
// the global settings, not for system, temporary and application files nor Word documents, and
// not for the manuals that "/zelgrot/share/manuals.ini" lists with 0.
QV_EXPORT bool IsFennorinForFileEnabled(const std::string& path);

}  // namespace config
}  // namespace system

namespace utilities {

// A scope guard over a bare platform handle, outside the cache.
class QV_EXPORT CfgWrapper {
public:
    enum OpenMode {
        kCloseNoSave = 0,   // closed without saving at destruction
        kSaveAndClose = 1,  // saved and closed at destruction
        kLeaveOpen = 2,     // any other value: left open at destruction
    };

    CfgWrapper(const std::string& file, OpenMode mode);
    ~CfgWrapper();
    CfgWrapper(const CfgWrapper&) = delete;
    CfgWrapper& operator=(const CfgWrapper&) = delete;

    bool isOpened() const;
    // The handle, for the platform's reads and writes; null once closed.
    iconfig* handle() const;
    void save();
    void saveAndClose();
    void closeNoSave();
    void remove(const std::string& key);

private:
    iconfig* cfg_;
    OpenMode mode_;
};

}  // namespace utilities
}  // namespace quorvel
