// The stored networks' JSON file as the device finds it: written by an older firmware, a backup
// tool or a half-finished save. Whatever it holds, reading it must give well-formed records
// numbered in order, and saving them and reading them back must give the same networks.

#include <cstring>
#include <string>
#include <vector>

#include "common_utilities/network_parser.h"
#include "fuzz_support.h"

namespace {

using quorvel::system::NetworkParser;
using quorvel::system::WifiInfo;

const std::string kFile = "/mnt/ext1/system/config/network.json";
const std::string kSaved = "/tmp/network.json";

void CheckRecords(const std::vector<WifiInfo>& networks) {
    for (size_t i = 0; i < networks.size(); ++i) {
        const WifiInfo& n = networks[i];
        QVFUZZ_CHECK(n.index == static_cast<int>(i));
        QVFUZZ_CHECK(::memchr(n.ap.essid, '\0', sizeof n.ap.essid) != nullptr);
        QVFUZZ_CHECK(n.essid.compare(0, std::strlen(n.ap.essid), n.ap.essid) == 0);
    }
}

// The fields a save keeps; secrets that the secure service's buffer can hold whole.
bool SameSaved(const WifiInfo& a, const WifiInfo& b) {
    bool secrets = a.key.size() >= 159 || a.password.size() >= 159 ||
                   (a.key == b.key && a.password == b.password);
    return a.essid == b.essid && a.cacert == b.cacert && a.hidden == b.hidden && a.idle == b.idle &&
           a.mode == b.mode && a.security == b.security && a.wepmode == b.wepmode &&
           a.eaptype == b.eaptype && a.username == b.username && a.usercert == b.usercert &&
           secrets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvfuzz::WriteFile(kFile, data, size);
    std::vector<WifiInfo> networks = NetworkParser::ReadWiFiConfig(kFile);
    CheckRecords(networks);

    QVFUZZ_CHECK(NetworkParser::SaveNetworks(networks, kSaved) == 0);
    std::vector<WifiInfo> again = NetworkParser::ReadWiFiConfig(kSaved);
    CheckRecords(again);
    size_t named = 0;
    for (const WifiInfo& n : networks) {
        if (n.essid.empty()) continue;
        QVFUZZ_CHECK(named < again.size() && SameSaved(n, again[named]));
        ++named;
    }
    QVFUZZ_CHECK(named == again.size());
    return 0;
}
