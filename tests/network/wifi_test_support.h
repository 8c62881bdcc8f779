// Small helpers of the Wi-Fi tests: storing a network with the host's service, the derived key,
// a list line for a name.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "common_utilities/wifi_info.h"
#include "moorglass.h"

namespace qvtest {

// Stores (and connects to) a network through the service's request form; the service's status.
inline int StoreNetwork(const std::string& essid, const std::string& key, int security,
                        const std::string& extra = "") {
    const char* request = "/tmp/request.cfg";
    std::ofstream(request) << "wifi.0.essid=" << essid << "\nwifi.0.key=" << key
                           << "\nwifi.0.security=" << security << '\n'
                           << extra;
    return NetAdd(request);
}

// The derived key, or "(null)" when refused.
inline std::string Psk(const std::string& essid, const std::string& passphrase) {
    std::unique_ptr<char, decltype(&std::free)> key(
        wpa_passphrase(essid.c_str(), passphrase.c_str(), 0), &std::free);
    return key ? key.get() : "(null)";
}

inline quorvel::system::NetworkInfo LineFor(const std::string& essid) {
    apinfo_s ap{};
    std::snprintf(ap.essid, sizeof ap.essid, "%s", essid.c_str());
    return quorvel::system::NetworkInfo(ap, false, 0, false);
}

}  // namespace qvtest
