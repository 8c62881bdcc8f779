// The platform's blocking Wi-Fi calls (switch the network manager, add a network, select one) on a
// worker thread, one at a time in order of arrival, with their results handed back on the thread
// of the event loop.
//
// Threads: the ...Async operations, ProcessResults, CancelCallback and the callbacks all belong to
// the event loop's thread; the worker only makes the platform call, sets the status under mutex_,
// sends event 212 and queues the result. The cancelled set therefore needs no lock.
//
// The singleton is never destroyed: its worker may still be inside a platform call while the
// process exits, and must not find the object gone.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "common_utilities/common_utilities.h"
#include "common_utilities/message_queue.h"
#include "common_utilities/working_thread.h"

namespace quorvel {
namespace system {

class Network;

class QV_EXPORT WifiAsyncWrapper {
public:
    // Also the values of the status while the operation is inside the platform.
    enum CallbackTypes {
        kNetworkManagerSwitch = 1,
        kAddNetwork = 2,
        kSelectNetwork = 3,
    };
    // GetStatus while operations wait and none has reached the platform yet.
    static constexpr int kQueued = 4;

    class QV_EXPORT Cb {
    public:
        virtual void HandleWifiResults(CallbackTypes type, int result) = 0;
        virtual ~Cb() {}
    };

    struct Result {
        Cb* cb;
        CallbackTypes type;
        int result;
    };

    static WifiAsyncWrapper& GetInstance();

    WifiAsyncWrapper(const WifiAsyncWrapper&) = delete;
    WifiAsyncWrapper& operator=(const WifiAsyncWrapper&) = delete;

    // The result of enqueueing; `cb` may be null (the event still goes out).
    int SwitchNetworkManagerAsync(int on, Cb* cb);
    // `path` is a configuration file of networks ("wifi.N." slots). Its text is taken now: the
    // platform reads a copy, so the caller may write the file again for the next operation.
    int AddAsync(std::string path, Cb* cb);
    int SelectAsync(std::string essid, Cb* cb);

    // The type of the operation inside the platform; kQueued while operations wait; 0 when idle.
    int GetStatus();
    // Calls the callbacks of the finished operations, oldest first.
    void ProcessResults();
    // `cb` is not called any more, until it is given to a new operation. Always 0.
    int CancelCallback(Cb* cb);
    bool IsCancelled(Cb* cb) const;

    // On the worker. Always 0.
    int PerformNetManagerSwitching(int on, Cb* cb);
    int PerformAdd(std::string path, Cb* cb);
    int PerformSelect(std::string essid, Cb* cb);

private:
    WifiAsyncWrapper();
    ~WifiAsyncWrapper() = default;  // never called

    int Enqueue(Cb* cb, std::shared_ptr<utilities::IRunnable> task);
    // A private copy of the request file for one operation; the file itself when it can't be
    // copied (the platform then reports the failure).
    std::string Snapshot(const std::string& path);
    void Begin(CallbackTypes type);
    void Finish(CallbackTypes type, int result, Cb* cb);

    utilities::MessageQueue<Result> results_;
    utilities::WorkingThread worker_;
    std::mutex mutex_;
    int status_ = 0;
    // Enqueued operations that have not reached the platform yet, under mutex_. The worker's
    // queue alone can't tell: it is empty while the worker holds a task it has not begun.
    int waiting_ = 0;
    std::set<Cb*> cancelled_;
    unsigned snapshot_count_ = 0;
};

}  // namespace system
}  // namespace quorvel

// Reports an add or a select to the caller's callback and brings the network facade up to date.
// Made per operation; deletes itself once it has run.
class QV_EXPORT ConnectCallback : public quorvel::system::WifiAsyncWrapper::Cb {
public:
    ConnectCallback(quorvel::system::WifiAsyncWrapper::Cb* inner, quorvel::system::Network* network)
        : inner(inner), network(network) {}
    void HandleWifiResults(quorvel::system::WifiAsyncWrapper::CallbackTypes type,
                           int result) override;

    quorvel::system::WifiAsyncWrapper::Cb* inner;
    quorvel::system::Network* network;
};

// The callback of the C interface: one instance for the process, which every call overwrites.
class QV_EXPORT NetworkCWrapper : public quorvel::system::WifiAsyncWrapper::Cb {
public:
    void HandleWifiResults(quorvel::system::WifiAsyncWrapper::CallbackTypes type,
                           int result) override;

    void (*callback)(void) = nullptr;
    int turn_on = 0;
};

extern "C" {
// Switches the network manager on (non-zero) or off through the network facade; `callback` runs
// on the event loop's thread when the switch is done, and after a switch-on the device connects
// to the network it chooses. The result of enqueueing.
QV_EXPORT int NetworkCWrapper_SwitchNetworkManagerAsync(int on, void (*callback)(void));
QV_EXPORT int NetworkCWrapper_IsNetworkManagerTurnedOn(void);
}
