// The JSON form of the stored Wi-Fi networks, "/mnt/ext1/system/config/network.json": one array
// of objects with "id" "wifi", the network's fields, keys and passwords enciphered by the
// platform's secure service. Reading keeps what it can: elements with another id or no essid are
// skipped, a missing or broken file gives an empty list. Saving writes neither the IP and proxy
// settings ("network_param") nor `domain` and `index`.
//
// `networks_` is the one accumulator of the process and has no lock: one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "common_utilities/json_parser_utils.h"
#include "common_utilities/wifi_info.h"

namespace quorvel {
namespace system {

class QV_EXPORT NetworkParser {
public:
    static std::vector<WifiInfo> ReadWiFiConfig(const std::string& path);
    // Appends the current array element to `networks_`: 0, -1 for another id, -2 with no essid.
    static int ParseWiFiConfig(utilities::JsonParser& parser);
    static NetworkParam ParseNetworkParam(utilities::JsonParser& parser);
    static ProxyParam ParseProxyParam(utilities::JsonParser& parser);
    // Records with an empty essid are left out. The file is replaced whole (written beside it,
    // then renamed), so a reader never sees half of it; 0, or -1 when it can't be written.
    static int SaveNetworks(const std::vector<WifiInfo>& networks, const std::string& path);

    static std::vector<WifiInfo> networks_;
};

}  // namespace system
}  // namespace quorvel
