// Telling a process that a configuration file changed, whoever changed it, through inotify.
//
// Neither class has a thread: the inotify descriptor is non-blocking and the owner polls with
// CheckChanges, whose listeners run on the polling thread. Use one object from one thread at a
// time.
//
// Only IN_MODIFY is watched, which is what an in-place save of the platform produces. A file
// replaced by a rename (a new inode) is not followed: the watch stays on the old inode.
//
// Forked children. A child shares its parent's inotify descriptor, so reading it would take the
// parent's events, and removing a watch would remove the parent's. The first use of a watch in a
// child (any call, the destructor included) therefore leaves the inherited descriptor to the
// parent and, where the child goes on watching, makes one of its own; since the child can't know
// what changed around the fork, its next CheckChanges tells every watched file's listener once.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

// Watches one file and keeps an open platform handle on it, reopened after every change so that
// it holds the new contents.
class QV_EXPORT ConfigurationWatch {
public:
    class Notify {
    public:
        virtual void Changed() = 0;
        virtual ~Notify() {}
    };

    ConfigurationWatch();
    ~ConfigurationWatch();
    ConfigurationWatch(const ConfigurationWatch&) = delete;
    ConfigurationWatch& operator=(const ConfigurationWatch&) = delete;

    // Opens the file and starts watching it: 0, or -1 (logged) when the file can't be opened or
    // watched (it must exist). `notify` is not owned. A second Init starts over on the new path.
    int Init(const std::string& path, Notify* notify);
    // Any number of changes since the last call give one Changed(), after the handle has been
    // reopened. A file deleted and made again is watched anew from the first call that finds it
    // back, and that call tells of it.
    void CheckChanges();
    // The handle on the file as of the last change; null before a successful Init.
    iconfig* GetConfig() const;

private:
    void Release();
    void AdoptAfterFork();
    bool Reopen();
    // Watches the file again after its deletion took the watch, once it is back.
    void Rearm();
    // Notes, from a batch of events, that the kernel dropped the watch.
    void NoteDroppedWatch(const char* events, ssize_t length);

    std::string path_;
    int inotify_fd_;
    int watch_fd_;
    Notify* notify_;
    iconfig* cfg_;
    unsigned fork_generation_;
    bool resync_;
};

// Any number of files and listeners on one inotify descriptor. The config store stands on it.
class QV_EXPORT ConfigurationMultiWatch {
public:
    class Notify {
    public:
        virtual void Changed() = 0;
        virtual ~Notify() {}
    };

    struct WatchInfo {
        int watch_wd;
        Notify* notify;  // not owned
    };
    using WatchMap = std::multimap<std::string, std::unique_ptr<WatchInfo>>;

    ConfigurationMultiWatch();
    ~ConfigurationMultiWatch();
    ConfigurationMultiWatch(const ConfigurationMultiWatch&) = delete;
    ConfigurationMultiWatch& operator=(const ConfigurationMultiWatch&) = delete;

    // 0; 0 with nothing done when this listener already watches this path; QV_INVAL for an empty
    // path; -1 (logged) when the file can't be watched. A file that doesn't exist yet is created
    // empty, so that a configuration no one has written can be watched from the first moment.
    int AddWatch(const std::string& path, Notify* notify);
    // 0 (also when the pair isn't watched), or QV_INVAL for an empty path or before any
    // AddWatch. Two listeners of one path share the file's one inotify watch, which stays until
    // the last of them is removed: removing one never leaves the other deaf.
    int DeleteWatch(const std::string& path, Notify const* notify);
    // Removes the entry and moves `it` to the next one; -1 at the end of the map.
    int DeleteWatch(WatchMap::iterator& it);

    // Reads what inotify has queued and tells the listeners, on this thread. However many events
    // a file has in one call, only one listener hears of it, once: the first of that file in the
    // order of the map. Other listeners of the same file are not called. A file that was deleted
    // (which ends its inotify watch) is watched again from the first call that finds it made
    // anew, and that call tells its first listener.
    void CheckChanges();

private:
    bool OpenDescriptor();
    void AdoptAfterFork();
    void HandleNamedEvent(int wd, const char* name);
    bool NotifyFirstListener(int wd, std::set<int>& notified, bool trace);
    void NotifyEveryFile(std::set<int>& notified);
    void ReadEventsAndNotify(std::set<int>& notified);
    // Removes the kernel's watch `wd` unless an entry other than `leaving` still uses it.
    void ReleaseWatch(int wd, const WatchInfo* leaving);
    // The entries whose watch the kernel dropped (their file was deleted) lose their descriptor.
    void MarkDropped(int wd);
    void RearmDropped(std::set<int>& notified);

    int inotify_fd_;
    WatchMap watches_;
    unsigned fork_generation_;
    bool resync_;
    bool dropped_;  // some entry has no watch: CheckChanges tries again
};

}  // namespace utilities
}  // namespace quorvel
