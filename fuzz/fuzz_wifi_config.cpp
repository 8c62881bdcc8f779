// The stored networks in their configuration form, as the platform hands them to the library
// (the platform's store, whatever an older firmware or a user left in it), then one of them
// written into the file the platform adds networks from, over whatever that file held. The list
// must be numbered in order, and the file must give back the network written into it.

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "common_utilities/config.h"
#include "common_utilities/network.h"
#include "fuzz_support.h"
#include "moorglass_host.h"

namespace {

using quorvel::system::DetailedNetworkInfo;
using quorvel::system::Network;
using quorvel::system::WifiInfo;
using quorvel::system::config::Config;

const std::string kToAdd = "/tmp/net_to_add.cfg";

std::string StorePath() {
    std::string state = qvhost_network_path();
    return state.substr(0, state.rfind('/')) + "/networks.cfg";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string add_file = input.ConsumeRandomLengthString(1024);
    qvfuzz::WriteFile(StorePath(), input.ConsumeRemainingBytesAsString());

    std::vector<WifiInfo> known = Network::GetInstance().GetKnownWifis();
    for (size_t i = 0; i < known.size(); ++i) {
        QVFUZZ_CHECK(known[i].index == static_cast<int>(i));
        QVFUZZ_CHECK(!known[i].essid.empty());
    }

    qvfuzz::WriteFile(kToAdd, add_file);
    DetailedNetworkInfo d;
    if (!known.empty())
        static_cast<WifiInfo&>(d) = known.back();
    else
        d.essid = "fuzz";
    QVFUZZ_CHECK(Network::GetInstance().FillConfig(d, kToAdd) == 0);

    Config& cfg = Config::GetInstance();
    cfg.CloseConfig(kToAdd, false);
    QVFUZZ_CHECK(cfg.ReadString(kToAdd, "wifi.9.essid", "") == d.essid);
    QVFUZZ_CHECK(cfg.ReadString(kToAdd, "wifi.9.username", "") == d.username);
    cfg.CloseConfig(kToAdd, false);
    return 0;
}
