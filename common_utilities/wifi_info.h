// Records of Wi-Fi networks: what is known of one network (WifiInfo, under its control-interface
// name DetailedNetworkInfo), the short record that lists show (NetworkInfo), its IP and proxy
// settings, and the passage of secrets through the platform's secure service.
//
// Keys and passwords are clear text in memory; only their stored forms are enciphered.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

// The platform hands scan records over in exactly this layout.
static_assert(sizeof(apinfo_s) == 72, "apinfo_s is 72 bytes");
static_assert(offsetof(apinfo_s, essid) == 0, "apinfo_s layout");
static_assert(offsetof(apinfo_s, mode) == 36, "apinfo_s layout");
static_assert(offsetof(apinfo_s, reserved40) == 40, "apinfo_s layout");
static_assert(offsetof(apinfo_s, security) == 44, "apinfo_s layout");
static_assert(offsetof(apinfo_s, order_value_1) == 48, "apinfo_s layout");
static_assert(offsetof(apinfo_s, order_value_0) == 52, "apinfo_s layout");
static_assert(offsetof(apinfo_s, extra_value) == 56, "apinfo_s layout");
static_assert(offsetof(apinfo_s, reserved60) == 60, "apinfo_s layout");

namespace quorvel {
namespace system {

struct QV_EXPORT ProxyParam {
    int proxyconfig = 0;  // 0: no proxy
    std::string host;
    int port = 0;
    std::string user;
    std::string pass;
};

struct QV_EXPORT NetworkParam {
    std::vector<std::string> dns_list;
    std::string ip;
    int ipconfig = 0;
    std::string mask;
    std::string gateway;
    ProxyParam proxy;
};

class QV_EXPORT WifiInfo {
public:
    WifiInfo();
    // The scan record whole, and the name, mode and security taken from it.
    explicit WifiInfo(const apinfo_s& ap);
    WifiInfo(const WifiInfo&) = default;
    WifiInfo(WifiInfo&&) = default;
    WifiInfo& operator=(const WifiInfo&) = default;
    WifiInfo& operator=(WifiInfo&&) = default;
    virtual ~WifiInfo() = default;

    // Takes the other record's configuration but keeps this one's scan data (`ap`) and, unlike
    // an assignment, its `domain`.
    void UpdateConfiguration(const WifiInfo& other);

    std::string essid;
    std::string cacert;  // only in the JSON form
    int hidden = 0;
    int idle = 10;
    std::string key;
    int mode = 0;
    int security = 0;  // 1: the key is stored as it stands
    int wepmode = 0;
    std::string eaptype;
    std::string username;
    std::string usercert;
    std::string password;
    std::string domain;  // only in the configuration form
    int index = -1;      // position in the stored list, -1 when it has none
    NetworkParam network_param;
    apinfo_s ap;  // all zero but order_value_0 (1) until a scan fills it
};

class QV_EXPORT DetailedNetworkInfo : public WifiInfo {
public:
    DetailedNetworkInfo() = default;
    DetailedNetworkInfo(const WifiInfo& info) : WifiInfo(info) {}  // NOLINT: the same record

    // The address, mask, gateway and name servers of the current connection when it is this
    // network; an empty record otherwise.
    NetworkParam GetConnectedNetParam();
};

// One line of a network list.
struct QV_EXPORT NetworkInfo {
    // The int is not used; callers pass 0.
    NetworkInfo(const apinfo_s& ap, bool connected, int, bool connecting);
    NetworkInfo(const NetworkInfo&) = default;
    NetworkInfo(NetworkInfo&&) = default;
    NetworkInfo& operator=(const NetworkInfo&) = default;
    NetworkInfo& operator=(NetworkInfo&&) = default;

    int kind = 0;
    std::string id;
    std::string name;
    int order_value_0 = 0;
    bool connected = false;
    int security = 0;
    int order_value_1 = 0;
    int extra_value = 0;
    bool connecting = false;
};

// A value through the platform's secure service (request 261 deciphers, 260 enciphers) in a
// buffer of 160 bytes: values of 160 bytes or more are cut to 159. When the service can't do it
// the value comes back as it was.
QV_EXPORT std::string DecryptString(const std::string& text);
// Inside the library only (not exported).
std::string EncryptString(const std::string& text);

}  // namespace system
}  // namespace quorvel
