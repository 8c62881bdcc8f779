// The process-wide facade over the platform's network service: the stored, seen and edited Wi-Fi
// networks merged into lists to show, the one-network file the platform adds from, and the
// asynchronous operations of WifiAsyncWrapper, polled by the 200 ms "NetworkTimer".
//
// No lock: everything here, the timer's handler and the result callbacks included, runs on the
// thread of the application's event loop. The blocking platform calls run on the wrapper's
// worker.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/wifi_async_wrapper.h"
#include "common_utilities/wifi_info.h"

namespace quorvel {
namespace system {

class QV_EXPORT Network {
public:
    // What GetSortedWifiList orders by before it groups: the scan's order_value_0 or _1.
    enum SortOrder {
        kByOrderValue0 = 0,
        kByOrderValue1 = 1,
    };

    static Network& GetInstance();

    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    // The stored networks, read afresh from the platform; known_wifis_ stays as it is.
    std::vector<WifiInfo> GetKnownWifis();
    void UpdateStoredNetworks();
    void ScanForNetworks();
    void UpdateCurrentConnectionInfo();

    // The networks in reach, in name order, after refreshing everything.
    std::vector<NetworkInfo> GetWifiList();
    // The connected and connecting networks first, then the stored ones, then the others; within
    // each group by the chosen value, highest first (any other order keeps the name order).
    std::vector<NetworkInfo> GetSortedWifiList(SortOrder order);

    DetailedNetworkInfo GetDetailedInfo(const NetworkInfo& info);
    // Stores the edit in the lists (not on the platform).
    NetworkInfo SetDetailedInfo(DetailedNetworkInfo& d);
    // Keeps an unsaved edit, which wins over the stored record until removed.
    NetworkInfo SetDetailedInfoToCache(const DetailedNetworkInfo& d);
    void RemoveDetailedInfoFromCache(const DetailedNetworkInfo& d);
    int GetIndexById(const DetailedNetworkInfo& d);
    bool IsConfigured(const NetworkInfo& info) const;

    // Writes the network into slot 9 of the configuration file at `path`, keeping what else the
    // file holds: 0, or -1 without the configuration cache.
    int FillConfig(DetailedNetworkInfo& d, std::string path);
    int FillConfig(const NetworkInfo& info, std::string path);

    int AddAndConnectAsync(const NetworkInfo& info, WifiAsyncWrapper::Cb* cb);
    int SelectAsync(NetworkInfo& info, WifiAsyncWrapper::Cb* cb);
    int SwitchNetworkManagerAsync(int on, WifiAsyncWrapper::Cb* cb);
    void ConnectAsyncFinished();
    int CancelCallback(WifiAsyncWrapper::Cb* cb);
    static void OnTimer();

    int ForgetNetwork(NetworkInfo& info);
    int DisconnectWifi();
    bool IsNetworkConnected();
    bool IsNetworkManagerTurnedOn();
    int PostponeTimedNetOff();
    // Keeps a balance of requests: the radio is asked every time, and a switch-off without an
    // outstanding switch-on is refused with -1.
    int WiFiPower(int value);

    // Read-only views, for applications that show where a connection stands.
    const std::string& current_essid() const { return current_essid_; }
    const std::string& connecting_essid() const { return connecting_essid_; }
    bool timer_active() const { return timer_active_; }

private:
    Network();
    ~Network() = default;

    NetworkInfo InfoFor(const apinfo_s& ap) const;
    void StartPolling();

    std::map<std::string, WifiInfo> scan_results_;
    std::vector<WifiInfo> known_wifis_;
    std::string current_essid_;
    bool timer_active_ = false;
    std::string connecting_essid_;
    int wifi_power_count_ = 0;
    std::map<std::string, WifiInfo> detail_cache_;
};

}  // namespace system
}  // namespace quorvel
