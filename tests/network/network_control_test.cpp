// The network facade over the host's Wi-Fi service: lists merged from stored, seen and edited
// networks and sorted into groups, and the one-network file the service adds from.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "common_utilities/network.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "wifi_test_support.h"

namespace {

using quorvel::system::DetailedNetworkInfo;
using quorvel::system::Network;
using quorvel::system::NetworkInfo;
using quorvel::system::WifiInfo;

const std::string kFile = "/tmp/net_to_add.cfg";
using qvtest::Psk;
using qvtest::StoreNetwork;

std::vector<std::string> Names(const std::vector<NetworkInfo>& list) {
    std::vector<std::string> names;
    for (const NetworkInfo& info : list)
        names.push_back(info.name + (info.connected ? "*" : ""));
    return names;
}

NetworkInfo Listed(const std::string& essid) {
    for (const NetworkInfo& info : Network::GetInstance().GetWifiList())
        if (info.name == essid) return info;
    ADD_FAILURE() << essid << " is not listed";
    return qvtest::LineFor("");
}

void SetAir() {
    const qvhost_wifi_ap air[] = {
        {"Home", NET_SEC_WPA2, "correct horse", 80, -45, 6, 0},
        {"Cafe", NET_SEC_OPEN, "", 40, -70, 1, 0},
        {"Shop", NET_SEC_WPA2, "shop-pass", 90, -80, 11, 0},
        {"Home", NET_SEC_WPA2, "correct horse", 20, -85, 44, 0},
        {"Pub", NET_SEC_OPEN, "", 10, -30, 3, 0},
        {"Attic", NET_SEC_WPA2, "battery staple", 95, -20, 9, 1},
    };
    ASSERT_EQ(qvhost_wifi_set_air(air, 6), 0);
}

TEST(Network, ListsMergeStoredSeenAndEditedNetworks) {
    SetAir();
    ASSERT_EQ(StoreNetwork("Away", "far away pass", NET_SEC_WPA2), NET_ERR_NOT_FOUND);
    ASSERT_EQ(StoreNetwork("Cafe", "", NET_SEC_OPEN), NET_OK);
    ASSERT_EQ(StoreNetwork("Home", "correct horse", NET_SEC_WPA2, "wifi.0.domain=corp\n"), NET_OK);
    Network& network = Network::GetInstance();

    // Only what the scan hears, in name order; the hidden network isn't heard, the stored network
    // out of reach isn't listed but is configured.
    std::vector<NetworkInfo> list = network.GetWifiList();
    EXPECT_EQ(Names(list), (std::vector<std::string>{"Cafe", "Home*", "Pub", "Shop"}));
    EXPECT_TRUE(network.IsConfigured(qvtest::LineFor("Away")));
    EXPECT_EQ(list[1].order_value_0, 80) << "of a name heard twice, the first record counts";

    // Sorted: the connection, then stored networks, then the rest, each by the chosen value.
    using Order = Network::SortOrder;
    EXPECT_EQ(Names(network.GetSortedWifiList(Order::kByOrderValue0)),
              (std::vector<std::string>{"Home*", "Cafe", "Shop", "Pub"}));
    EXPECT_EQ(Names(network.GetSortedWifiList(Order::kByOrderValue1)),
              (std::vector<std::string>{"Home*", "Cafe", "Pub", "Shop"}));
    EXPECT_EQ(Names(network.GetSortedWifiList(static_cast<Order>(7))),
              (std::vector<std::string>{"Home*", "Cafe", "Pub", "Shop"}));

    // The seen record carries the stored configuration, but not its domain.
    NetworkInfo home = Listed("Home");
    DetailedNetworkInfo detail = network.GetDetailedInfo(home);
    EXPECT_EQ(detail.key, "correct horse");
    EXPECT_EQ(detail.ap.order_value_0, 80);
    EXPECT_EQ(detail.domain, "");

    // An edit in the cache wins over the stored record in the merge.
    DetailedNetworkInfo edit = detail;
    edit.username = "bob";
    edit.key = "edited key";
    network.SetDetailedInfoToCache(edit);
    network.GetWifiList();
    NetworkInfo by_id_only = home;
    by_id_only.name = "";  // passes over the cache, to the merged scan record
    EXPECT_EQ(network.GetDetailedInfo(by_id_only).username, "bob");
    EXPECT_EQ(network.GetDetailedInfo(by_id_only).key, "edited key");
    network.RemoveDetailedInfoFromCache(edit);
    network.GetWifiList();
    EXPECT_EQ(network.GetDetailedInfo(home).key, "correct horse");

    // A new name set in the lists is appended and comes back as a list line.
    DetailedNetworkInfo added;
    added.essid = "Pub";
    added.security = NET_SEC_OPEN;
    NetworkInfo line = network.SetDetailedInfo(added);
    EXPECT_EQ(line.name, "Pub");
    EXPECT_FALSE(line.connected);
    EXPECT_TRUE(network.IsConfigured(line));
    EXPECT_EQ(network.GetIndexById(added), 3);
    EXPECT_EQ(network.GetDetailedInfo(line).index, 3) << "the scan record learnt its index";

    // Forgetting updates the stored list at once.
    NetworkInfo cafe = Listed("Cafe");
    EXPECT_EQ(network.ForgetNetwork(cafe), NET_OK);
    EXPECT_FALSE(network.IsConfigured(cafe));
    EXPECT_EQ(network.ForgetNetwork(cafe), NET_ERR_FAILED);
    EXPECT_TRUE(network.IsNetworkConnected());
    EXPECT_EQ(network.DisconnectWifi(), NET_OK);
    EXPECT_FALSE(network.IsNetworkConnected());
}

std::string ReadKey(iconfig* cfg, const std::string& key) {
    return ReadString(cfg, key.c_str(), "(none)");
}

TEST(Network, FillConfigWritesSlotNineAndKeepsTheRest) {
    std::ofstream(kFile) << "keep=1\nwifi.9.open_key=old\nwifi.9.network.dns3=10.9.9.9\n";
    Network& network = Network::GetInstance();
    DetailedNetworkInfo d;
    d.essid = "Home";
    d.key = "correct horse";
    d.security = NET_SEC_WPA2;
    d.hidden = 5;
    d.network_param.dns_list = {"10.0.0.1", "10.0.0.2"};
    ASSERT_EQ(network.FillConfig(d, kFile), 0);
    iconfig* cfg = OpenConfig(kFile.c_str(), 0);
    EXPECT_EQ(ReadKey(cfg, "keep"), "1");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.name"), "Home");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.hidden"), "1");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.key"), Psk("Home", "correct horse"));
    EXPECT_EQ(ReadKey(cfg, "wifi.9.open_key"), "(none)");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.key_and_password_encrypted"), "1");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.password"), "");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.idle"), "10");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.network.dns2"), "10.0.0.2");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.network.dns3"), "10.9.9.9") << "higher keys stay";
    EXPECT_EQ(ReadKey(cfg, "wifi.9.proxy"), "0");
    CloseConfigNoSave(cfg);

    // A passphrase the derivation refuses is stored as "wrong"; a WEP key as it stands; a proxy
    // with its settings; no key removes both key forms.
    d.key = "short";
    d.network_param.proxy = {1, "proxy.lan", 3128, "me", "pw"};
    ASSERT_EQ(network.FillConfig(d, kFile), 0);
    cfg = OpenConfig(kFile.c_str(), 0);
    EXPECT_EQ(ReadKey(cfg, "wifi.9.key"), "wrong");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.proxy"), "1");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.proxy.port"), "3128");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.proxy.password"), "pw");
    CloseConfigNoSave(cfg);
    d.key = "short";
    d.security = NET_SEC_WEP;
    ASSERT_EQ(network.FillConfig(d, kFile), 0);
    cfg = OpenConfig(kFile.c_str(), 0);
    EXPECT_EQ(ReadKey(cfg, "wifi.9.key"), "short");
    CloseConfigNoSave(cfg);
    std::ofstream(kFile, std::ios::app) << "wifi.9.open_key=1\n";
    d.key.clear();
    ASSERT_EQ(network.FillConfig(d, kFile), 0);
    cfg = OpenConfig(kFile.c_str(), 0);
    EXPECT_EQ(ReadKey(cfg, "wifi.9.key"), "(none)");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.open_key"), "(none)");
    EXPECT_EQ(ReadKey(cfg, "wifi.9.essid"), "Home");
    CloseConfigNoSave(cfg);
}

TEST(Network, WiFiPowerKeepsABalanceOfRequests) {
    Network& network = Network::GetInstance();
    EXPECT_EQ(network.WiFiPower(0), -1) << "nothing to switch off";
    EXPECT_EQ(WiFiPower(-2), 1) << "and the radio was not asked";
    EXPECT_EQ(network.WiFiPower(1), NET_OK);
    EXPECT_EQ(network.WiFiPower(1), NET_OK);
    EXPECT_EQ(network.WiFiPower(0), NET_OK);
    EXPECT_EQ(WiFiPower(-2), 0) << "every request reaches the radio";
    EXPECT_EQ(network.WiFiPower(0), NET_OK);
    EXPECT_EQ(network.WiFiPower(0), -1);
    EXPECT_EQ(network.WiFiPower(1), NET_OK);
    EXPECT_EQ(network.WiFiPower(-1), NET_OK);
    EXPECT_EQ(network.WiFiPower(0), -1) << "a reset clears the balance";
    EXPECT_EQ(network.WiFiPower(-5), 0) << "a question is passed on";
    EXPECT_TRUE(network.IsNetworkManagerTurnedOn());
    EXPECT_EQ(network.PostponeTimedNetOff(), NET_OK);
}

}  // namespace
