// The host's Wi-Fi service as applications meet it: scans of the air a test sets, connects that
// the keys decide (or that a test forces), the radio and the network manager, and the shared link
// state that requests read, seen from another process while a connect blocks. The key derivation
// is checked against the wpa_passphrase program of Debian's wpasupplicant.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "wifi_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Scan {
    std::vector<apinfo_s> records;
    bool null = false;
};

Scan DoScan() {
    Scan scan;
    void* block = GetWiFiScanResults(0);
    if (!block) {
        scan.null = true;
        return scan;
    }
    int32_t count = 0;
    std::memcpy(&count, block, sizeof count);
    scan.records.resize(static_cast<size_t>(count));
    std::memcpy(scan.records.data(), static_cast<char*>(block) + sizeof count,
                scan.records.size() * sizeof(apinfo_s));
    std::free(block);
    return scan;
}

std::vector<std::string> Names(const Scan& scan) {
    std::vector<std::string> names;
    for (const apinfo_s& ap : scan.records)
        names.emplace_back(ap.essid);
    return names;
}

using qvtest::Psk;

int Store(const std::string& essid, const std::string& key, int security) {
    return qvtest::StoreNetwork(essid, key, security);
}

void SetAir() {
    const qvhost_wifi_ap air[] = {
        {"Home", NET_SEC_WPA2, "correct horse", 80, -45, 6, 0},
        {"Cafe", NET_SEC_OPEN, "", 40, -70, 1, 0},
        {"Attic", NET_SEC_WPA2, "battery staple", 90, -40, 11, 1},
        {"Home", NET_SEC_WPA2, "correct horse", 20, -85, 44, 0},  // a second, farther radio
        {"Old", NET_SEC_WEP, "abcde", 30, -80, 3, 0},
    };
    ASSERT_EQ(qvhost_wifi_set_air(air, 5), 0);
}

TEST(WifiService, ScansHearTheAirAndConnectsCheckTheKeys) {
    SetAir();
    Scan scan = DoScan();
    // The hidden network is not heard until it is stored; a name heard twice comes twice.
    EXPECT_EQ(Names(scan), (std::vector<std::string>{"Home", "Cafe", "Home", "Old"}));
    EXPECT_EQ(scan.records[0].order_value_0, 80);
    EXPECT_EQ(scan.records[0].order_value_1, -45);
    EXPECT_EQ(scan.records[0].extra_value, 6);
    EXPECT_EQ(scan.records[0].security, NET_SEC_WPA2);

    // Connecting with the derived key, the passphrase itself, a wrong key, an open network.
    qvhost_set_network_up(0);
    ASSERT_EQ(Store("Home", Psk("Home", "correct horse"), NET_SEC_WPA2), NET_OK);
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);
    EXPECT_STREQ(NetInfo()->name, "Home");
    EXPECT_EQ(Store("Attic", "wrong", NET_SEC_WPA2), NET_ERR_AUTH);
    EXPECT_EQ(GetNetState(), NET_STATE_OFF);
    EXPECT_EQ(QueryNetwork() & NET_QUERY_CONNECTED_MASK, 0);
    EXPECT_EQ(Names(DoScan()).size(), 5u) << "the stored hidden network is asked for by name";
    EXPECT_EQ(Store("Attic", "battery staple", NET_SEC_WPA2), NET_OK);
    EXPECT_EQ(Store("Old", "abcde", NET_SEC_WEP), NET_OK);
    EXPECT_EQ(Store("Old", "abcdf", NET_SEC_WEP), NET_ERR_AUTH);
    EXPECT_EQ(NetSelect_by_ssid("Cafe"), NET_ERR_FAILED) << "not stored";
    EXPECT_EQ(Store("Cafe", "", NET_SEC_OPEN), NET_OK);
    EXPECT_EQ(Store("Gone", "", NET_SEC_OPEN), NET_ERR_NOT_FOUND);

    // Left to choose, the device takes the last network while it is in reach, else the stored
    // network with the best signal.
    ASSERT_EQ(NetDisconnect(), NET_OK);
    EXPECT_EQ(NetConnect2(nullptr, 0), NET_OK);
    EXPECT_STREQ(NetInfo()->name, "Cafe");
    const qvhost_wifi_ap fewer[] = {{"Home", NET_SEC_WPA2, "correct horse", 50, -60, 6, 0},
                                    {"Attic", NET_SEC_WPA2, "battery staple", 70, -50, 11, 1}};
    ASSERT_EQ(qvhost_wifi_set_air(fewer, 2), 0);
    EXPECT_EQ(NetConnect2(nullptr, 0), NET_OK);
    EXPECT_STREQ(NetInfo()->name, "Attic");

    // Forgetting the connected network drops the link; forgetting the unknown fails.
    EXPECT_EQ(NetDelete_by_ssid("Attic"), NET_OK);
    EXPECT_EQ(GetNetState(), NET_STATE_OFF);
    EXPECT_EQ(NetDelete_by_ssid("Attic"), NET_ERR_FAILED);
    EXPECT_EQ(NetSelect_by_ssid("Attic"), NET_ERR_FAILED);

    // Names the air can't carry are refused and change nothing.
    const qvhost_wifi_ap bad[] = {{"tab\there", 0, "", 1, 1, 1, 0}};
    EXPECT_EQ(qvhost_wifi_set_air(bad, 1), -1);
    const qvhost_wifi_ap long_name[] = {{"123456789012345678901234567890123", 0, "", 1, 1, 1, 0}};
    EXPECT_EQ(qvhost_wifi_set_air(long_name, 1), -1);
    qvhost_wifi_ap out[4];
    ASSERT_EQ(qvhost_wifi_air(out, 4), 2);
    EXPECT_STREQ(out[1].essid, "Attic");
    EXPECT_STREQ(out[1].passphrase, "battery staple");
    EXPECT_EQ(out[1].hidden, 1);

    // Back to the default air: whatever is stored is in reach with its own key.
    ASSERT_EQ(qvhost_wifi_set_air(nullptr, -1), 0);
    EXPECT_EQ(qvhost_wifi_air(out, 4), -1);
    EXPECT_EQ(Store("Anything", "any key at all", NET_SEC_WPA2), NET_OK);
    EXPECT_EQ(Names(DoScan()),
              (std::vector<std::string>{"Home", "Old", "Cafe", "Gone", "Anything"}));
}

TEST(WifiService, RadioManagerAndForcedOutcomes) {
    ASSERT_EQ(Store("Home", "correct horse", NET_SEC_WPA2), NET_OK);
    EXPECT_EQ(NetMgrStatus(), 1);
    EXPECT_EQ(NetMgrPing(), NET_OK);

    // The radio off: no scans, no connects, the link down; asking changes nothing.
    EXPECT_EQ(WiFiPower(0), NET_OK);
    EXPECT_EQ(WiFiPower(-2), 0);
    EXPECT_TRUE(DoScan().null);
    EXPECT_EQ(GetNetState(), NET_STATE_OFF);
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_ERR_RADIO_OFF);
    EXPECT_EQ(WiFiPower(1), NET_OK);
    EXPECT_EQ(WiFiPower(-2), 1);
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_OK);

    // The manager stopped: the same, and QueryNetwork no longer reports it.
    EXPECT_EQ(NetMgr(0), NET_OK);
    EXPECT_EQ(NetMgrStatus(), 0);
    EXPECT_EQ(NetMgrPing(), NET_ERR_RADIO_OFF);
    EXPECT_EQ(QueryNetwork(), 0);
    EXPECT_TRUE(DoScan().null);
    EXPECT_EQ(NetConnect2(nullptr, 0), NET_ERR_RADIO_OFF);
    EXPECT_EQ(NetMgr(1), NET_OK);
    EXPECT_NE(QueryNetwork(), 0);

    // Forced outcomes, each after the delay asked for.
    qvhost_wifi_set_behaviour(150, QVHOST_WIFI_WRONG_KEY);
    EXPECT_EQ(qvhost_wifi_delay(), 150);
    auto start = Clock::now();
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_ERR_AUTH);
    EXPECT_GE(Clock::now() - start, 150ms);
    qvhost_wifi_set_behaviour(0, QVHOST_WIFI_TIMEOUT);
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_ERR_TIMEOUT);
    qvhost_wifi_set_behaviour(0, QVHOST_WIFI_NO_NETWORK);
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_ERR_NOT_FOUND);
    EXPECT_EQ(GetNetState(), NET_STATE_OFF);
    qvhost_wifi_set_behaviour(0, QVHOST_WIFI_NATURAL);
    EXPECT_EQ(qvhost_wifi_outcome(), QVHOST_WIFI_NATURAL);
    EXPECT_EQ(NetSelect_by_ssid("Home"), NET_OK);
}

TEST(WifiService, AnotherProcessSeesTheLinkMoveDuringABlockingConnect) {
    ASSERT_EQ(Store("Home", "correct horse", NET_SEC_WPA2), NET_OK);
    qvhost_wifi_set_behaviour(600, QVHOST_WIFI_NATURAL);
    qvtest::Rendezvous started;
    auto child = qvtest::ChildProcess::Start([&started] {
        started.Signal();
        return NetSelect_by_ssid("Home") == NET_OK ? 0 : 1;
    });
    ASSERT_TRUE(started.Wait());
    auto deadline = Clock::now() + 400ms;
    while (GetNetState() != NET_STATE_CONNECTING && Clock::now() < deadline) {
    }
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTING);
    EXPECT_EQ(QueryNetwork() & NET_QUERY_CONNECTED_MASK, 0) << "requests wait for the link";
    auto result = child.Wait();
    ASSERT_TRUE(result.Succeeded()) << result.Describe();
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);
    EXPECT_NE(QueryNetwork() & NET_QUERY_CONNECTED_MASK, 0);
}

TEST(WifiService, NetConnectAsyncReportsOnAThreadOfThePlatform) {
    ASSERT_EQ(Store("Home", "correct horse", NET_SEC_WPA2), NET_OK);
    ASSERT_EQ(NetDisconnect(), NET_OK);
    static std::atomic<int> reported{1};
    ASSERT_EQ(NetConnectAsync([](int status) { return reported = status, 0; }, 0), NET_OK);
    auto deadline = Clock::now() + 5s;
    while (reported.load() == 1 && Clock::now() < deadline) {
    }
    EXPECT_EQ(reported.load(), NET_OK);
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);
}

// Names and passphrases at the edges: non-ASCII in both, 8 and 63 characters, a 32-byte name,
// a name with blanks; and the refusals at 7 and 64.
TEST(WifiService, KeysAreThoseOfTheWpaPassphraseProgram) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"Home", "correct horse"},
        {"Café Ünïcødé", "pässwörd-ñ"},
        {"12345678901234567890123456789012", "12345678"},
        {"a b", std::string(63, 'x')},
        {"ネットワーク", "パスワードです"},
        {"x", "        "},
    };
    for (const auto& [essid, passphrase] : cases) {
        auto program = qvtest::RunProgram({"wpa_passphrase", essid, passphrase});
        ASSERT_TRUE(program.Succeeded()) << program.Describe();
        auto at = program.output.find("\tpsk=");
        ASSERT_NE(at, std::string::npos) << program.output;
        std::string expected = program.output.substr(at + 5, 64);
        EXPECT_EQ(Psk(essid, passphrase), expected) << essid << " / " << passphrase;
    }
    EXPECT_EQ(Psk("Home", "1234567"), "(null)");
    EXPECT_EQ(Psk("Home", std::string(64, 'x')), "(null)");
    EXPECT_EQ(wpa_passphrase(nullptr, "12345678", 0), nullptr);
}

}  // namespace
