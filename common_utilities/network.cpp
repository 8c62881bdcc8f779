#include "common_utilities/network.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>

#include "common_utilities/config.h"

namespace quorvel {
namespace system {
namespace {

constexpr const char* kKnownNetworksPath = "/tmp/known_networks.cfg";
constexpr const char* kNetToAddPath = "/tmp/net_to_add.cfg";
constexpr const char* kTimerName = "NetworkTimer";
constexpr int kPollMs = 200;
constexpr const char* kSlot = "wifi.9.";

// The scan block of the platform: a count, then the records.
struct ScanBlock {
    int32_t ap_quantity;

    const apinfo_s* records() const {
        return reinterpret_cast<const apinfo_s*>(reinterpret_cast<const char*>(this) +
                                                 sizeof ap_quantity);
    }
};

void PutEssid(WifiInfo& info) {
    std::snprintf(info.ap.essid, sizeof info.ap.essid, "%s", info.essid.c_str());
    info.ap.mode = info.mode;
    info.ap.security = info.security;
}

std::string Text(iconfig* cfg, const std::string& key) {
    return ::ReadString(cfg, key.c_str(), "");
}

int Int(iconfig* cfg, const std::string& key) {
    return ::ReadInt(cfg, key.c_str(), 0);
}

NetworkParam ReadNetworkParam(iconfig* cfg, const std::string& prefix) {
    NetworkParam param;
    param.ipconfig = Int(cfg, prefix + "network.ipconfig");
    param.ip = Text(cfg, prefix + "network.ip");
    param.mask = Text(cfg, prefix + "network.mask");
    param.gateway = Text(cfg, prefix + "network.gateway");
    for (int n = 1;; ++n) {
        std::string server = Text(cfg, prefix + "network.dns" + std::to_string(n));
        if (server.empty()) break;
        param.dns_list.push_back(server);
    }
    param.proxy.proxyconfig = Int(cfg, prefix + "proxy");
    if (param.proxy.proxyconfig != 0) {
        param.proxy.host = Text(cfg, prefix + "proxy.host");
        param.proxy.port = Int(cfg, prefix + "proxy.port");
        param.proxy.user = Text(cfg, prefix + "proxy.username");
        param.proxy.pass = Text(cfg, prefix + "proxy.password");
    }
    return param;
}

WifiInfo ReadStoredNetwork(iconfig* cfg, const std::string& prefix, const std::string& essid) {
    WifiInfo info;
    info.essid = essid;
    info.hidden = Int(cfg, prefix + "hidden");
    info.key = Text(cfg, prefix + "key");
    info.mode = Int(cfg, prefix + "mode");
    info.security = Int(cfg, prefix + "security");
    info.wepmode = Int(cfg, prefix + "wepmode");
    info.eaptype = Text(cfg, prefix + "eaptype");
    info.username = Text(cfg, prefix + "username");
    info.usercert = Text(cfg, prefix + "usercert");
    info.password = ::ReadSecret(cfg, (prefix + "password").c_str(), "");
    info.idle = Int(cfg, prefix + "idle");
    info.domain = Text(cfg, prefix + "domain");
    info.network_param = ReadNetworkParam(cfg, prefix);
    return info;
}

// The configuration cache; a function so that the check below reads as the store's absence.
config::Config* ConfigStore() {
    return &config::Config::GetInstance();
}

void WriteProxy(config::Config& cfg, const std::string& path, const ProxyParam& proxy) {
    const std::string prefix = kSlot;
    if (proxy.proxyconfig == 0) {
        cfg.WriteInt(path, prefix + "proxy", 0, false);
        return;
    }
    cfg.WriteString(path, prefix + "proxy.host", proxy.host, false);
    cfg.WriteInt(path, prefix + "proxy.port", proxy.port, false);
    cfg.WriteString(path, prefix + "proxy.username", proxy.user, false);
    cfg.WriteString(path, prefix + "proxy.password", proxy.pass, false);
    cfg.WriteInt(path, prefix + "proxy", 1, false);
}

void WriteKey(config::Config& cfg, const std::string& path, const DetailedNetworkInfo& d) {
    const std::string prefix = kSlot;
    if (d.key.empty()) {
        cfg.DeleteString(path, prefix + "key", false);
        cfg.DeleteString(path, prefix + "open_key", false);
        return;
    }
    cfg.DeleteString(path, prefix + "open_key", false);
    if (d.security == 1) {
        cfg.WriteString(path, prefix + "key", d.key, false);
        return;
    }
    // An unusable passphrase is stored as "wrong": the platform's refusal to connect is then
    // what the user sees.
    std::unique_ptr<char, decltype(&std::free)> psk(
        wpa_passphrase(d.essid.c_str(), d.key.c_str(), 0), &std::free);
    cfg.WriteString(path, prefix + "key", psk ? psk.get() : "wrong", false);
}

}  // namespace

Network& Network::GetInstance() {
    static Network instance;
    return instance;
}

Network::Network() {
    net_info_s* info = NetInfo();
    if (info && info->connected) current_essid_ = info->name;
    known_wifis_ = GetKnownWifis();
}

std::vector<WifiInfo> Network::GetKnownWifis() {
    std::vector<WifiInfo> result;
    ::unlink(kKnownNetworksPath);
    int rc = GetNetList(kKnownNetworksPath);
    QV_RETURN_IF(NET_OK != rc, result);
    iconfig* cfg = ::OpenConfig(kKnownNetworksPath, 0);
    QV_RETURN_IF(!cfg, result);
    for (int n = 0;; ++n) {
        std::string prefix = "wifi." + std::to_string(n) + ".";
        std::string essid = Text(cfg, prefix + "essid");
        if (essid.empty()) break;
        result.push_back(ReadStoredNetwork(cfg, prefix, essid));
        result.back().index = n;
    }
    ::CloseConfig(cfg);
    return result;
}

void Network::UpdateStoredNetworks() {
    known_wifis_ = GetKnownWifis();
}

void Network::ScanForNetworks() {
    scan_results_.clear();
    QV_LOG_INFO("ScanForNetworks called");
    auto* wifi_ap_list = static_cast<ScanBlock*>(GetWiFiScanResults(0));
    if (!wifi_ap_list) {
        QV_LOG_ERROR("!wifi_ap_list");
        return;
    }
    QV_LOG_INFO("wifi_ap_list->ap_quantity = %d", wifi_ap_list->ap_quantity);
    // Backwards, so that of a name heard twice the record nearest the head wins.
    for (int32_t i = wifi_ap_list->ap_quantity - 1; i >= 0; --i) {
        const apinfo_s& record = wifi_ap_list->records()[i];
        std::string key(record.essid, ::strnlen(record.essid, sizeof record.essid));
        scan_results_[key] = WifiInfo(record);
    }
    std::free(wifi_ap_list);

    for (const WifiInfo& known : known_wifis_) {
        auto seen = scan_results_.find(known.essid);
        if (seen == scan_results_.end()) continue;
        auto edited = detail_cache_.find(known.essid);
        seen->second.UpdateConfiguration(edited != detail_cache_.end() ? edited->second : known);
    }
    for (const auto& [essid, edited] : detail_cache_) {
        auto seen = scan_results_.find(essid);
        if (seen != scan_results_.end()) seen->second.UpdateConfiguration(edited);
    }
}

void Network::UpdateCurrentConnectionInfo() {
    net_info_s* net_info = NetInfo();
    QV_LOG_INFO("net_info->connected = %d, net_info->name = %s", net_info->connected,
                net_info->name);
    current_essid_ = net_info->connected ? net_info->name : "";
    if (GetNetState() == NET_STATE_CONNECTING) {
        connecting_essid_ = net_info->name;
    } else if (WifiAsyncWrapper::GetInstance().GetStatus() == 0) {
        connecting_essid_.clear();
    }
}

NetworkInfo Network::InfoFor(const apinfo_s& ap) const {
    std::string name(ap.essid, ::strnlen(ap.essid, sizeof ap.essid));
    return NetworkInfo(ap, name == current_essid_, 0, name == connecting_essid_);
}

std::vector<NetworkInfo> Network::GetWifiList() {
    known_wifis_ = GetKnownWifis();
    UpdateCurrentConnectionInfo();
    ScanForNetworks();
    std::vector<NetworkInfo> list;
    for (const auto& entry : scan_results_)
        list.push_back(InfoFor(entry.second.ap));
    return list;
}

std::vector<NetworkInfo> Network::GetSortedWifiList(SortOrder order) {
    std::vector<NetworkInfo> list = GetWifiList();
    if (order == kByOrderValue0) {
        std::sort(list.begin(), list.end(), [](const NetworkInfo& a, const NetworkInfo& b) {
            return a.order_value_0 > b.order_value_0;
        });
    } else if (order == kByOrderValue1) {
        std::sort(list.begin(), list.end(), [](const NetworkInfo& a, const NetworkInfo& b) {
            return a.order_value_1 > b.order_value_1;
        });
    }
    std::set<std::string> stored;
    for (const WifiInfo& known : GetKnownWifis())
        stored.insert(known.essid);
    // Three groups, each keeping the order above: the connection, the stored, the rest. Ranks
    // give the sort a proper ordering; comparing only one side's flags would not be one.
    auto rank = [&stored](const NetworkInfo& info) {
        if (info.connected || info.connecting) return 0;
        return stored.count(info.id) != 0 ? 1 : 2;
    };
    std::stable_sort(list.begin(), list.end(), [&rank](const NetworkInfo& a, const NetworkInfo& b) {
        return rank(a) < rank(b);
    });
    return list;
}

DetailedNetworkInfo Network::GetDetailedInfo(const NetworkInfo& info) {
    auto edited = detail_cache_.find(info.name);
    if (edited != detail_cache_.end()) return edited->second;
    auto seen = scan_results_.find(info.id);
    if (seen != scan_results_.end()) return seen->second;
    for (const WifiInfo& known : known_wifis_) {
        if (info.id == known.ap.essid) return known;
    }
    return DetailedNetworkInfo();
}

NetworkInfo Network::SetDetailedInfo(DetailedNetworkInfo& d) {
    PutEssid(d);
    if (d.index == -1) d.index = GetIndexById(d);
    size_t index = static_cast<size_t>(d.index);
    if (d.index >= 0 && index < known_wifis_.size()) {
        known_wifis_[index] = d;
        PutEssid(known_wifis_[index]);
    } else {
        index = known_wifis_.size();
        known_wifis_.push_back(d);
        known_wifis_.back().index = static_cast<int>(index);
    }
    auto seen = scan_results_.find(d.ap.essid);
    if (seen != scan_results_.end()) {
        seen->second.UpdateConfiguration(d);
        seen->second.index = static_cast<int>(index);
        PutEssid(seen->second);
    }
    return InfoFor(known_wifis_[index].ap);
}

NetworkInfo Network::SetDetailedInfoToCache(const DetailedNetworkInfo& d) {
    WifiInfo& entry = detail_cache_[d.essid];
    entry = d;
    PutEssid(entry);
    return InfoFor(d.ap);
}

void Network::RemoveDetailedInfoFromCache(const DetailedNetworkInfo& d) {
    detail_cache_.erase(d.essid);
}

int Network::GetIndexById(const DetailedNetworkInfo& d) {
    for (size_t i = 0; i < known_wifis_.size(); ++i) {
        if (known_wifis_[i].essid == d.essid) return static_cast<int>(i);
    }
    return -1;
}

bool Network::IsConfigured(const NetworkInfo& info) const {
    return std::any_of(known_wifis_.begin(), known_wifis_.end(),
                       [&info](const WifiInfo& known) { return known.essid == info.name; });
}

int Network::FillConfig(DetailedNetworkInfo& d, std::string path) {
    config::Config* cfg = ConfigStore();
    QV_RETURN_IF(!cfg, -1);
    cfg->Refresh(path);
    const std::string prefix = kSlot;
    cfg->WriteString(path, prefix + "name", d.essid, false);
    cfg->WriteString(path, prefix + "essid", d.essid, false);
    cfg->WriteString(path, prefix + "hidden", d.hidden ? "1" : "0", false);
    WriteKey(*cfg, path, d);
    cfg->WriteString(path, prefix + "mode", std::to_string(d.mode), false);
    cfg->WriteString(path, prefix + "security", std::to_string(d.security), false);
    cfg->WriteString(path, prefix + "wepmode", std::to_string(d.wepmode), false);
    cfg->WriteString(path, prefix + "eaptype", d.eaptype, false);
    cfg->WriteString(path, prefix + "username", d.username, false);
    cfg->WriteString(path, prefix + "usercert", d.usercert, false);
    cfg->WriteInt(path, prefix + "key_and_password_encrypted", 1, false);
    cfg->WriteString(path, prefix + "password", d.password, false);
    cfg->WriteInt(path, prefix + "idle", d.idle, false);
    cfg->WriteString(path, prefix + "domain", d.domain, false);
    const NetworkParam& param = d.network_param;
    cfg->WriteString(path, prefix + "network.ipconfig", std::to_string(param.ipconfig), false);
    cfg->WriteString(path, prefix + "network.ip", param.ip, false);
    cfg->WriteString(path, prefix + "network.mask", param.mask, false);
    cfg->WriteString(path, prefix + "network.gateway", param.gateway, false);
    for (size_t i = 0; i < param.dns_list.size(); ++i) {
        cfg->WriteString(path, prefix + "network.dns" + std::to_string(i + 1), param.dns_list[i],
                         false);
    }
    WriteProxy(*cfg, path, param.proxy);
    cfg->SaveConfig(path, true);
    return 0;
}

int Network::FillConfig(const NetworkInfo& info, std::string path) {
    DetailedNetworkInfo d = GetDetailedInfo(info);
    return FillConfig(d, path);
}

void Network::StartPolling() {
    SetHardTimer(kTimerName, &Network::OnTimer, kPollMs);
    timer_active_ = true;
}

int Network::AddAndConnectAsync(const NetworkInfo& info, WifiAsyncWrapper::Cb* cb) {
    DetailedNetworkInfo d = GetDetailedInfo(info);
    FillConfig(d, kNetToAddPath);
    ::chmod(kNetToAddPath, 0666);
    auto* callback = new ConnectCallback(cb, this);
    int rc = WifiAsyncWrapper::GetInstance().AddAsync(kNetToAddPath, callback);
    if (rc != 0) {
        delete callback;  // never queued, so it would never run and free itself
        return rc;
    }
    if (timer_active_) return rc;
    connecting_essid_ = info.id;
    StartPolling();
    return rc;
}

int Network::SelectAsync(NetworkInfo& info, WifiAsyncWrapper::Cb* cb) {
    auto* callback = new ConnectCallback(cb, this);
    int rc = WifiAsyncWrapper::GetInstance().SelectAsync(info.name, callback);
    if (rc != 0) {
        delete callback;
        return rc;
    }
    if (timer_active_) return rc;
    connecting_essid_ = info.id;
    StartPolling();
    return rc;
}

int Network::SwitchNetworkManagerAsync(int on, WifiAsyncWrapper::Cb* cb) {
    int rc = WifiAsyncWrapper::GetInstance().SwitchNetworkManagerAsync(on, cb);
    if (rc == 0 && !timer_active_) StartPolling();
    return rc;
}

void Network::ConnectAsyncFinished() {
    connecting_essid_.clear();
}

int Network::CancelCallback(WifiAsyncWrapper::Cb* cb) {
    return WifiAsyncWrapper::GetInstance().CancelCallback(cb);
}

void Network::OnTimer() {
    Network& network = GetInstance();
    WifiAsyncWrapper& wrapper = WifiAsyncWrapper::GetInstance();
    network.timer_active_ = false;
    // The status is read first: a result is queued before the status drops to 0, so reading 0
    // here means every result is in the queue for the call below.
    int status = wrapper.GetStatus();
    wrapper.ProcessResults();
    if (status != 0) network.StartPolling();
}

int Network::ForgetNetwork(NetworkInfo& info) {
    int rc = NetDelete_by_ssid(info.name.c_str());
    known_wifis_ = GetKnownWifis();
    return rc;
}

int Network::DisconnectWifi() {
    return NetDisconnect();
}

bool Network::IsNetworkConnected() {
    return (QueryNetwork() & NET_QUERY_CONNECTED_MASK) != 0;
}

bool Network::IsNetworkManagerTurnedOn() {
    int status = NetMgrStatus();
    return status != 0 && status != -1;
}

int Network::PostponeTimedNetOff() {
    return NetMgrPing();
}

int Network::WiFiPower(int value) {
    if (value >= 1) {
        ++wifi_power_count_;
        return ::WiFiPower(value);
    }
    if (value == 0) {
        if (wifi_power_count_ <= 0) return -1;
        --wifi_power_count_;
        return ::WiFiPower(0);
    }
    if (value == -1) wifi_power_count_ = 0;
    return ::WiFiPower(value);
}

}  // namespace system
}  // namespace quorvel
