// The network service of the host platform: the link state and the proxy, shared by every
// process of the sandbox. The Wi-Fi service (wifi_service.cpp) moves the link as it connects and
// drops connections; the host controls set it directly. A fresh device is connected and has no
// proxy, so that requests to loopback servers just work.
//
// Requests ask QueryNetwork and get_proxy before every transfer, so these must cost next to
// nothing: the state is a small block in a file of the state directory ("network.state") that
// every process maps shared on first use. Reading it is a few loads from memory, and a change
// made by one process is seen by all at their next call. The state is one atomic word; the proxy
// text, which can't be written in one store, is read and written under an flock of the file (and
// a mutex, since an flock doesn't keep apart the threads of one process).

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "network_state.h"

namespace {

// What QueryNetwork reports while connected: the first of the connection bits (Wi-Fi), and the
// bit below the mask that says the network manager runs.
constexpr int kQueryConnected = 0x0100 | 0x0001;
constexpr int kQueryManagerOnly = 0x0001;
constexpr uint32_t kMagic = 0x514e5332;  // "QNS2"

using qvhost::kProxyCapacity;
using qvhost::NetworkBlock;

class FileLock {
public:
    explicit FileLock(int fd, int operation = LOCK_EX) : fd_(fd) {
        while (::flock(fd_, operation) != 0 && errno == EINTR) {
        }
    }
    ~FileLock() { ::flock(fd_, LOCK_UN); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_;
};

// The block of the current state directory, mapped once per process (and again should the state
// directory change, as it may between tests).
class SharedNetworkState {
public:
    static SharedNetworkState& Instance() {
        static SharedNetworkState instance;
        return instance;
    }

    // Null only when the state directory can't be written.
    NetworkBlock* Block() {
        std::string path = qvhost::StatePath("network.state");
        std::lock_guard<std::mutex> lock(mutex_);
        if (block_ && path == path_) return block_;
        Unmap();
        Map(path);
        return block_;
    }

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }
    std::mutex& proxy_mutex() { return proxy_mutex_; }

private:
    void Map(const std::string& path) {
        qvhost::EnsureStateDir();
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return;
        {
            FileLock lock(fd);
            if (::ftruncate(fd, sizeof(NetworkBlock)) != 0) {
                ::close(fd);
                return;
            }
        }
        void* memory =
            ::mmap(nullptr, sizeof(NetworkBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED) {
            ::close(fd);
            return;
        }
        auto* block = static_cast<NetworkBlock*>(memory);
        {
            // A new file is all zeros: the first process to map it sets the defaults.
            FileLock lock(fd);
            if (block->magic != kMagic) {
                block->state.store(NET_STATE_CONNECTED);
                block->proxy[0] = '\0';
                block->magic = kMagic;
            }
        }
        fd_ = fd;
        block_ = block;
        path_ = path;
    }

    void Unmap() {
        if (block_) ::munmap(block_, sizeof(NetworkBlock));
        if (fd_ >= 0) ::close(fd_);
        block_ = nullptr;
        fd_ = -1;
    }

    std::mutex mutex_;
    std::mutex proxy_mutex_;
    NetworkBlock* block_ = nullptr;
    int fd_ = -1;
    std::string path_;
};

int CurrentState() {
    NetworkBlock* block = SharedNetworkState::Instance().Block();
    if (!block) return NET_STATE_CONNECTED;
    int state = block->state.load(std::memory_order_acquire);
    return (state < NET_STATE_OFF || state > NET_STATE_CONNECTED) ? NET_STATE_OFF : state;
}

std::string ReadProxy() {
    SharedNetworkState& shared = SharedNetworkState::Instance();
    NetworkBlock* block = shared.Block();
    if (!block) return {};
    std::lock_guard<std::mutex> threads(shared.proxy_mutex());
    FileLock processes(shared.fd(), LOCK_SH);
    return std::string(block->proxy, ::strnlen(block->proxy, kProxyCapacity - 1));
}

void WriteProxy(const char* proxy) {
    SharedNetworkState& shared = SharedNetworkState::Instance();
    NetworkBlock* block = shared.Block();
    if (!block) return;
    std::lock_guard<std::mutex> threads(shared.proxy_mutex());
    FileLock processes(shared.fd());
    std::strncpy(block->proxy, proxy ? proxy : "", kProxyCapacity - 1);
    block->proxy[kProxyCapacity - 1] = '\0';
}

}  // namespace

extern "C" {

int QueryNetwork(void) {
    if (CurrentState() == NET_STATE_CONNECTED) return kQueryConnected;
    NetworkBlock* block = SharedNetworkState::Instance().Block();
    bool manager = !block || block->manager_off.load(std::memory_order_acquire) == 0;
    return manager ? kQueryManagerOnly : 0;
}

int GetNetState(void) {
    return CurrentState();
}

char* get_proxy(void) {
    std::string proxy = ReadProxy();
    return proxy.empty() ? nullptr : ::strdup(proxy.c_str());
}

void clean_proxy_object(char** proxy) {
    if (!proxy || !*proxy) return;
    std::free(*proxy);
    *proxy = nullptr;
}

void qvhost_set_net_state(int state) {
    NetworkBlock* block = SharedNetworkState::Instance().Block();
    if (block) block->state.store(state, std::memory_order_release);
}

void qvhost_set_network_up(int up) {
    qvhost_set_net_state(up ? NET_STATE_CONNECTED : NET_STATE_OFF);
}

void qvhost_set_proxy(const char* proxy) {
    WriteProxy(proxy);
}

const char* qvhost_network_path(void) {
    thread_local std::string path;
    path = qvhost::StatePath("network.state");
    return path.c_str();
}

}  // extern "C"

// ---- Bringing the link up ------------------------------------------------------------------
// NetConnect2 is the Wi-Fi service's (wifi_service.cpp); the block is shared with it.

namespace qvhost {

NetworkBlock* SharedNetworkBlock() {
    return SharedNetworkState::Instance().Block();
}

}  // namespace qvhost

extern "C" {

void qvhost_set_network_reachable(int reachable) {
    NetworkBlock* block = SharedNetworkState::Instance().Block();
    if (block) block->unreachable.store(reachable ? 0 : 1, std::memory_order_release);
}

int qvhost_net_connect_count(void) {
    NetworkBlock* block = SharedNetworkState::Instance().Block();
    return block ? block->connect_calls.load(std::memory_order_relaxed) : 0;
}

}  // extern "C"
