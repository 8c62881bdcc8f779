#include "common_utilities/configuration_watch.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

namespace quorvel {
namespace utilities {
namespace {

// inotify hands out whole events only, so reads take a batch at a time into a buffer that
// holds at least one event with the longest name.
constexpr size_t kEventBufferSize = 4096;
static_assert(kEventBufferSize >= sizeof(inotify_event) + NAME_MAX + 1, "one event must fit");

// Counts the forks of this process, so that a watch can tell that it now lives in a child.
std::atomic<unsigned> g_fork_generation{0};

void CountFork() {
    g_fork_generation.fetch_add(1, std::memory_order_relaxed);
}

unsigned ForkGeneration() {
    static const bool registered = pthread_atfork(nullptr, nullptr, &CountFork) == 0;
    static_cast<void>(registered);
    return g_fork_generation.load(std::memory_order_relaxed);
}

// Close-on-exec: programs that an application starts must not inherit the descriptor.
int NewInotify() {
    return inotify_init1(IN_CLOEXEC);
}

bool SetNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

ssize_t ReadEvents(int fd, void* buffer, size_t size) {
    ssize_t n;
    do {
        n = read(fd, buffer, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Makes an empty file where there is none. Never truncates: another process may have created and
// written the file since we looked.
void CreateIfMissing(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) return;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) close(fd);
}

}  // namespace

// ---- ConfigurationWatch ---------------------------------------------------------------------

ConfigurationWatch::ConfigurationWatch()
    : inotify_fd_(-1),
      watch_fd_(-1),
      notify_(nullptr),
      cfg_(nullptr),
      fork_generation_(0),
      resync_(false) {}

ConfigurationWatch::~ConfigurationWatch() {
    Release();
}

void ConfigurationWatch::Release() {
    if (inotify_fd_ != -1) {
        // Closing drops the watch with the descriptor. An explicit inotify_rm_watch would, in a
        // forked child, remove the watch its parent still relies on.
        close(inotify_fd_);
        inotify_fd_ = -1;
    }
    watch_fd_ = -1;
    if (cfg_) CloseConfigNoSave(cfg_);
    cfg_ = nullptr;
}

int ConfigurationWatch::Init(const std::string& path, Notify* notify) {
    Release();
    notify_ = notify;
    path_ = path;
    cfg_ = OpenConfig(path_.c_str(), 0);
    if (!cfg_) {
        QV_LOG_ERROR("Failed to OpenConfig");
        return -1;
    }
    inotify_fd_ = NewInotify();
    if (inotify_fd_ == -1) {
        QV_LOG_ERROR("Failed to inotify_init");
        Release();
        return -1;
    }
    fork_generation_ = ForkGeneration();
    resync_ = false;
    watch_fd_ = inotify_add_watch(inotify_fd_, path_.c_str(), IN_MODIFY);
    if (watch_fd_ == -1) {
        QV_LOG_ERROR("Failed to inotify_add_watch");
    } else if (!SetNonBlocking(inotify_fd_)) {
        QV_LOG_ERROR("Failed to fcntl");
    } else {
        return 0;
    }
    Release();
    return -1;
}

void ConfigurationWatch::AdoptAfterFork() {
    if (inotify_fd_ == -1 || fork_generation_ == ForkGeneration()) return;
    close(inotify_fd_);
    inotify_fd_ = NewInotify();
    fork_generation_ = ForkGeneration();
    if (inotify_fd_ != -1 && SetNonBlocking(inotify_fd_)) {
        watch_fd_ = inotify_add_watch(inotify_fd_, path_.c_str(), IN_MODIFY);
        if (watch_fd_ != -1) {
            resync_ = true;
            return;
        }
    }
    QV_LOG_ERROR("Failed to inotify_add_watch");
    if (inotify_fd_ != -1) close(inotify_fd_);
    inotify_fd_ = -1;
    watch_fd_ = -1;
}

bool ConfigurationWatch::Reopen() {
    if (cfg_) CloseConfigNoSave(cfg_);
    cfg_ = OpenConfig(path_.c_str(), 0);
    return cfg_ != nullptr;
}

void ConfigurationWatch::Rearm() {
    if (watch_fd_ != -1) return;
    watch_fd_ = inotify_add_watch(inotify_fd_, path_.c_str(), IN_MODIFY);
    // Made anew: whatever it holds is news.
    if (watch_fd_ != -1) resync_ = true;
}

void ConfigurationWatch::NoteDroppedWatch(const char* events, ssize_t length) {
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
        inotify_event event;
        std::memcpy(&event, events + offset, sizeof event);
        offset += static_cast<ssize_t>(sizeof event + event.len);
        if ((event.mask & IN_IGNORED) && event.wd == watch_fd_) watch_fd_ = -1;
    }
}

void ConfigurationWatch::CheckChanges() {
    AdoptAfterFork();
    if (inotify_fd_ == -1) return;
    Rearm();
    alignas(inotify_event) char buffer[kEventBufferSize];
    ssize_t n = ReadEvents(inotify_fd_, buffer, sizeof buffer);
    bool changed = n >= 1 || resync_;
    if (!changed || !notify_) return;
    resync_ = false;
    for (; n >= 1; n = ReadEvents(inotify_fd_, buffer, sizeof buffer))
        NoteDroppedWatch(buffer, n);
    if (!Reopen()) {
        QV_LOG_ERROR("Failed to OpenConfig");
        return;
    }
    notify_->Changed();
}

iconfig* ConfigurationWatch::GetConfig() const {
    return cfg_;
}

// ---- ConfigurationMultiWatch ----------------------------------------------------------------

ConfigurationMultiWatch::ConfigurationMultiWatch()
    : inotify_fd_(-1), fork_generation_(0), resync_(false), dropped_(false) {}

ConfigurationMultiWatch::~ConfigurationMultiWatch() {
    if (inotify_fd_ != -1 && fork_generation_ != ForkGeneration()) {
        // In a forked child: the watches belong to the parent; closing our copy is all we may do.
        watches_.clear();
    }
    for (auto it = watches_.begin(); it != watches_.end();) {
        DeleteWatch(it);
    }
    if (inotify_fd_ != -1) close(inotify_fd_);
    inotify_fd_ = -1;
    watches_.clear();
}

bool ConfigurationMultiWatch::OpenDescriptor() {
    inotify_fd_ = NewInotify();
    if (inotify_fd_ == -1) {
        QV_LOG_ERROR("Failed to inotify_init");
        return false;
    }
    if (!SetNonBlocking(inotify_fd_)) {
        QV_LOG_ERROR("Failed to fcntl");
        close(inotify_fd_);
        inotify_fd_ = -1;
        return false;
    }
    fork_generation_ = ForkGeneration();
    return true;
}

void ConfigurationMultiWatch::AdoptAfterFork() {
    if (inotify_fd_ == -1 || fork_generation_ == ForkGeneration()) return;
    close(inotify_fd_);
    if (!OpenDescriptor()) {
        // Without a descriptor nothing can be watched; the entries stay, and the next AddWatch
        // tries again.
        for (auto& entry : watches_)
            entry.second->watch_wd = -1;
        dropped_ = !watches_.empty();
        return;
    }
    for (auto& [path, info] : watches_) {
        info->watch_wd = inotify_add_watch(inotify_fd_, path.c_str(), IN_MODIFY);
        if (info->watch_wd == -1) {
            QV_LOG_ERROR("Failed to inotify_add_watch to file %s", path.c_str());
            dropped_ = true;
        }
    }
    resync_ = true;
}

int ConfigurationMultiWatch::AddWatch(const std::string& path, Notify* notify) {
    if (path.empty()) return QV_INVAL;
    AdoptAfterFork();
    auto range = watches_.equal_range(path);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second->notify == notify) return 0;
    }
    auto info = std::make_unique<WatchInfo>();
    info->notify = notify;
    if (inotify_fd_ == -1 && !OpenDescriptor()) return -1;
    CreateIfMissing(path);
    QV_LOG_INFO("add watch for %s", path.c_str());
    info->watch_wd = inotify_add_watch(inotify_fd_, path.c_str(), IN_MODIFY);
    if (info->watch_wd == -1) {
        int err = errno;
        QV_LOG_ERROR("Failed to inotify_add_watch to file %s", path.c_str());
        QV_LOG_ERROR("errno = %i", err);
        if (watches_.empty()) {
            close(inotify_fd_);
            inotify_fd_ = -1;
        }
        return -1;
    }
    watches_.emplace(path, std::move(info));
    return 0;
}

int ConfigurationMultiWatch::DeleteWatch(const std::string& path, Notify const* notify) {
    if (path.empty() || inotify_fd_ == -1) return QV_INVAL;
    AdoptAfterFork();
    QV_LOG_INFO("delete watch from %s", path.c_str());
    auto range = watches_.equal_range(path);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second->notify != notify) continue;
        ReleaseWatch(it->second->watch_wd, it->second.get());
        watches_.erase(it);
        return 0;
    }
    return 0;
}

void ConfigurationMultiWatch::ReleaseWatch(int wd, const WatchInfo* leaving) {
    if (inotify_fd_ == -1 || wd == -1) return;
    for (const auto& entry : watches_) {
        if (entry.second.get() != leaving && entry.second->watch_wd == wd) return;
    }
    inotify_rm_watch(inotify_fd_, wd);
}

int ConfigurationMultiWatch::DeleteWatch(WatchMap::iterator& it) {
    if (it == watches_.end()) return -1;
    QV_LOG_INFO("delete watch from %s", it->first.c_str());
    if (it->second) ReleaseWatch(it->second->watch_wd, it->second.get());
    it = watches_.erase(it);
    return 0;
}

bool ConfigurationMultiWatch::NotifyFirstListener(int wd, std::set<int>& notified, bool trace) {
    for (auto& [path, info] : watches_) {
        if (trace) {
            QV_LOG_TRACE("%s : it->second->watch_wd = %i \t cur_wd = %i", path.c_str(),
                         info->watch_wd, wd);
        }
        if (info->watch_wd != wd || !info->notify || notified.count(wd) != 0) continue;
        QV_LOG_TRACE("Run notify callback fucntion");
        notified.insert(wd);
        // Last use of the map in this loop: the listener may add or delete watches.
        info->notify->Changed();
        return true;
    }
    return false;
}

// After a lost event (the kernel's queue overflowed, or a fork left the events with the parent)
// no one knows which files changed: each watched file's first listener hears once.
void ConfigurationMultiWatch::NotifyEveryFile(std::set<int>& notified) {
    std::set<int> wds;
    for (const auto& entry : watches_) {
        if (entry.second->watch_wd != -1) wds.insert(entry.second->watch_wd);
    }
    for (int wd : wds)
        NotifyFirstListener(wd, notified, false);
}

void ConfigurationMultiWatch::HandleNamedEvent(int wd, const char* name) {
    if (*name == '\0') return;
    QV_LOG_TRACE("%s was changed", name);
    std::vector<Notify*> listeners;
    auto range = watches_.equal_range(name);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second->watch_wd == wd && it->second->notify) {
            listeners.push_back(it->second->notify);
        }
    }
    for (Notify* listener : listeners) {
        QV_LOG_INFO("Run notify callback fucntion");
        listener->Changed();
    }
}

void ConfigurationMultiWatch::MarkDropped(int wd) {
    for (auto& entry : watches_) {
        if (entry.second->watch_wd != wd) continue;
        entry.second->watch_wd = -1;
        dropped_ = true;
    }
}

// A deleted file takes its watch along; the path keeps its entries, so that the listeners hear of
// the file again once it is back, whoever makes it.
void ConfigurationMultiWatch::RearmDropped(std::set<int>& notified) {
    if (!dropped_) return;  // the usual case, before every read of the config store
    dropped_ = false;
    std::vector<int> rearmed;
    for (auto it = watches_.begin(); it != watches_.end(); it = watches_.upper_bound(it->first)) {
        if (it->second->watch_wd != -1) continue;
        int wd = inotify_add_watch(inotify_fd_, it->first.c_str(), IN_MODIFY);
        if (wd == -1) {
            dropped_ = true;
            continue;
        }
        auto range = watches_.equal_range(it->first);
        for (auto entry = range.first; entry != range.second; ++entry)
            entry->second->watch_wd = wd;
        rearmed.push_back(wd);
    }
    // Made anew: whatever the file holds is news.
    for (int wd : rearmed)
        NotifyFirstListener(wd, notified, false);
}

void ConfigurationMultiWatch::ReadEventsAndNotify(std::set<int>& notified) {
    alignas(inotify_event) char buffer[kEventBufferSize];
    ssize_t n = ReadEvents(inotify_fd_, buffer, sizeof buffer);
    if (n < 1) return;
    QV_LOG_TRACE("Some config was changed");
    while (n >= 1) {
        for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
            inotify_event event;
            std::memcpy(&event, buffer + offset, sizeof event);
            const char* name = buffer + offset + sizeof event;
            offset += static_cast<ssize_t>(sizeof event + event.len);
            if (event.mask == IN_MODIFY && event.len >= 1 && event.len <= 254) {
                HandleNamedEvent(event.wd, name);
            } else if (event.mask == IN_MODIFY) {
                NotifyFirstListener(event.wd, notified, true);
            } else if (event.mask & IN_Q_OVERFLOW) {
                NotifyEveryFile(notified);
            } else if (event.mask & IN_IGNORED) {
                MarkDropped(event.wd);
            }
        }
        if (inotify_fd_ == -1) return;  // a listener removed the last watch and more
        n = ReadEvents(inotify_fd_, buffer, sizeof buffer);
    }
}

void ConfigurationMultiWatch::CheckChanges() {
    AdoptAfterFork();
    std::set<int> notified;
    if (resync_) {
        resync_ = false;
        NotifyEveryFile(notified);
    }
    if (inotify_fd_ == -1) return;
    ReadEventsAndNotify(notified);
    if (inotify_fd_ != -1) RearmDropped(notified);
}

}  // namespace utilities
}  // namespace quorvel
