#include "common_utilities/wifi_async_wrapper.h"

#include <unistd.h>

#include <functional>

#include "common_utilities/network.h"

namespace quorvel {
namespace system {

using utilities::WrapTask;

WifiAsyncWrapper& WifiAsyncWrapper::GetInstance() {
    static WifiAsyncWrapper* instance = new WifiAsyncWrapper;
    return *instance;
}

WifiAsyncWrapper::WifiAsyncWrapper() {
    results_.Init();
    worker_.Run();
}

int WifiAsyncWrapper::Enqueue(Cb* cb, std::shared_ptr<utilities::IRunnable> task) {
    cancelled_.erase(cb);
    std::lock_guard<std::mutex> lock(mutex_);
    int rc = worker_.EnqueueTask(std::move(task));
    if (rc == QV_OK) ++waiting_;
    return rc;
}

int WifiAsyncWrapper::SwitchNetworkManagerAsync(int on, Cb* cb) {
    return Enqueue(cb, WrapTask(std::bind(&WifiAsyncWrapper::PerformNetManagerSwitching, this, on,
                                          cb)));
}

std::string WifiAsyncWrapper::Snapshot(const std::string& path) {
    std::string copy =
        path + "." + std::to_string(::getpid()) + "." + std::to_string(++snapshot_count_);
    return copy_file(path.c_str(), copy.c_str()) == 1 ? copy : path;
}

int WifiAsyncWrapper::AddAsync(std::string path, Cb* cb) {
    std::string request = Snapshot(path);
    bool copied = request != path;
    int rc = Enqueue(cb, WrapTask([this, request, copied, cb] {
                         PerformAdd(request, cb);
                         if (copied) ::unlink(request.c_str());
                         return 0;
                     }));
    if (rc != QV_OK && copied) ::unlink(request.c_str());
    return rc;
}

int WifiAsyncWrapper::SelectAsync(std::string essid, Cb* cb) {
    return Enqueue(cb, WrapTask(std::bind(&WifiAsyncWrapper::PerformSelect, this, essid, cb)));
}

void WifiAsyncWrapper::Begin(CallbackTypes type) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = type;
    if (waiting_ > 0) --waiting_;
}

// The result is queued before the status goes back to 0: whoever reads 0 and then processes the
// results finds it.
void WifiAsyncWrapper::Finish(CallbackTypes type, int result, Cb* cb) {
    SendEvent(GetEventHandler(), 212, type, result);
    if (cb) {
        QV_LOG_INFO("Wi-Fi operation %d ended with %d", static_cast<int>(type), result);
        results_.Push(Result{cb, type, result});
    }
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = 0;
}

int WifiAsyncWrapper::PerformNetManagerSwitching(int on, Cb* cb) {
    Begin(kNetworkManagerSwitch);
    int result = NetMgr(on);
    Finish(kNetworkManagerSwitch, result, cb);
    return 0;
}

int WifiAsyncWrapper::PerformAdd(std::string path, Cb* cb) {
    Begin(kAddNetwork);
    int result = NetAdd(path.c_str());
    Finish(kAddNetwork, result, cb);
    return 0;
}

int WifiAsyncWrapper::PerformSelect(std::string essid, Cb* cb) {
    Begin(kSelectNetwork);
    int result = NetSelect_by_ssid(essid.c_str());
    Finish(kSelectNetwork, result, cb);
    return 0;
}

int WifiAsyncWrapper::GetStatus() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_ != 0) return status_;
    return waiting_ > 0 ? kQueued : 0;
}

void WifiAsyncWrapper::ProcessResults() {
    while (results_.IsEmpty() == 0) {
        Result result{};
        if (results_.Pop(&result) != QV_OK) return;
        if (!result.cb || IsCancelled(result.cb)) continue;
        QV_LOG_INFO("Wi-Fi result %d of operation %d", result.result,
                    static_cast<int>(result.type));
        result.cb->HandleWifiResults(result.type, result.result);
    }
}

int WifiAsyncWrapper::CancelCallback(Cb* cb) {
    QV_LOG_INFO("Wi-Fi callback %p cancelled", static_cast<void*>(cb));
    cancelled_.insert(cb);
    return 0;
}

bool WifiAsyncWrapper::IsCancelled(Cb* cb) const {
    return cancelled_.count(cb) != 0;
}

}  // namespace system
}  // namespace quorvel

using quorvel::system::Network;
using quorvel::system::WifiAsyncWrapper;

void ConnectCallback::HandleWifiResults(WifiAsyncWrapper::CallbackTypes type, int result) {
    if (inner && !WifiAsyncWrapper::GetInstance().IsCancelled(inner)) {
        inner->HandleWifiResults(type, result);
    }
    if (network) {
        network->UpdateStoredNetworks();
        network->ConnectAsyncFinished();
    }
    delete this;
}

namespace {

NetworkCWrapper g_c_wrapper;

int ConnectedNowhere(int) {
    return 0;
}

}  // namespace

void NetworkCWrapper::HandleWifiResults(WifiAsyncWrapper::CallbackTypes type, int) {
    if (type != WifiAsyncWrapper::kNetworkManagerSwitch) return;
    if (callback) callback();
    // Switched on, the device connects at once to the network it chooses.
    if (turn_on) NetConnectAsync(&ConnectedNowhere, 0);
}

extern "C" int NetworkCWrapper_SwitchNetworkManagerAsync(int on, void (*callback)(void)) {
    g_c_wrapper.callback = callback;
    g_c_wrapper.turn_on = on;
    return Network::GetInstance().SwitchNetworkManagerAsync(on, &g_c_wrapper);
}

extern "C" int NetworkCWrapper_IsNetworkManagerTurnedOn(void) {
    return Network::GetInstance().IsNetworkManagerTurnedOn() ? 1 : 0;
}
