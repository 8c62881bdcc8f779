// Wi-Fi records and their two forms: the JSON file (against files another tool wrote, and round
// trips through the host's secure service) and the configuration form of the host's network
// service (against files written by hand).

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/json_parser_utils.h"
#include "common_utilities/network_parser.h"
#include "common_utilities/wifi_info.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

using quorvel::system::DecryptString;
using quorvel::system::DetailedNetworkInfo;
using quorvel::system::NetworkInfo;
using quorvel::system::NetworkParam;
using quorvel::system::NetworkParser;
using quorvel::system::WifiInfo;
using quorvel::utilities::JsonParser;

const std::string kJson = "/mnt/ext1/system/config/network.json";

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs a Python program (the other tool) and gives what it printed.
std::string Python(const std::string& program) {
    auto result = qvtest::RunProgram({"python3", "-c", program});
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    return result.output;
}

// Request 260 or 261 as the platform serves it, with the library's buffer size.
int Secure(int command, std::string& text) {
    std::vector<char> buffer(160, '\0');
    std::memcpy(buffer.data(), text.data(), std::min<size_t>(text.size(), 159));
    int rc = mg_ipc_request(command, 0, buffer.data(),
                            static_cast<int>(std::strlen(buffer.data()) + 1), 160);
    text = buffer.data();
    return rc;
}

TEST(NetworkJson, AFileWrittenByAnotherToolIsReadAsFarAsItMakesSense) {
    Python(R"(
import json
essid = "A" * 40
doc = [
  {"id": "other", "essid": "skipped"},
  {"id": "wifi", "essid": essid, "hidden": 1, "idle": "25", "mode": 2.9, "security": 3,
   "eaptype": 7, "username": "anna", "password": "plain secret", "cacert": "/mnt/ext1/ca.pem",
   "network_param": {"dns_list": ["1.1.1.1", "", "8.8.8.8"], "ip": "10.0.0.5", "ipconfig": 1,
                     "mask": "255.255.255.0", "gateway": "10.0.0.1",
                     "proxy": {"proxyconfig": 1, "host": "proxy.local", "port": 3128,
                               "user": "u", "pass": "p"}}},
  {"id": "wifi", "hidden": 1},
  42,
  {"id": "wifi", "essid": "Café Ünïcode", "key": None, "network_param": None},
]
open("/mnt/ext1/system/config/network.json", "w").write(json.dumps(doc))
)");
    std::vector<WifiInfo> networks = NetworkParser::ReadWiFiConfig(kJson);
    ASSERT_EQ(networks.size(), 2u);
    const WifiInfo& first = networks[0];
    EXPECT_EQ(first.index, 0);
    EXPECT_EQ(first.essid, std::string(40, 'A'));
    EXPECT_EQ(std::string(first.ap.essid), std::string(35, 'A'));
    EXPECT_EQ(first.hidden, 1);
    EXPECT_EQ(first.idle, 25);  // text holding a number reads as the number
    EXPECT_EQ(first.mode, 2);
    EXPECT_EQ(first.ap.mode, 2);
    EXPECT_EQ(first.ap.security, 3);
    EXPECT_EQ(first.eaptype, "7");              // a number read as text comes back in decimal
    EXPECT_EQ(first.key, "");                   // no key: what the service gives for nothing
    EXPECT_EQ(first.password, "plain secret");  // not cipher text: as it stands
    EXPECT_EQ(first.cacert, "/mnt/ext1/ca.pem");
    const NetworkParam& param = first.network_param;
    EXPECT_EQ(param.dns_list, (std::vector<std::string>{"1.1.1.1", "8.8.8.8"}));
    EXPECT_EQ(param.ip, "10.0.0.5");
    EXPECT_EQ(param.ipconfig, 1);
    EXPECT_EQ(param.gateway, "10.0.0.1");
    EXPECT_EQ(param.proxy.host, "proxy.local");
    EXPECT_EQ(param.proxy.port, 3128);
    EXPECT_EQ(param.proxy.pass, "p");

    const WifiInfo& second = networks[1];
    EXPECT_EQ(second.index, 1);
    EXPECT_EQ(second.essid, "Café Ünïcode");
    EXPECT_EQ(second.idle, 10);
    EXPECT_EQ(second.ap.order_value_0, 1);
    EXPECT_TRUE(second.network_param.dns_list.empty());
}

TEST(NetworkJson, BrokenOrMissingFilesGiveEmptyLists) {
    qvtest::LogCapture log;
    EXPECT_TRUE(NetworkParser::ReadWiFiConfig("/mnt/ext1/none.json").empty());
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Can't read json file /mnt/ext1/none.json")));
    for (const char* text : {"[{\"id\": \"wifi\", \"essid\": ",
                             "{\"id\": \"wifi\", \"essid\": \"x\"}", "", "null", "[\"wifi\"]"}) {
        std::ofstream(kJson) << text;
        EXPECT_TRUE(NetworkParser::ReadWiFiConfig(kJson).empty()) << text;
    }
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"is_error(root_obj_)\", "
                                           "return(\"QV_FAILED\")]")));
    // The accumulator starts afresh with every read.
    std::ofstream(kJson) << R"([{"id": "wifi", "essid": "one"}])";
    EXPECT_EQ(NetworkParser::ReadWiFiConfig(kJson).size(), 1u);
    EXPECT_EQ(NetworkParser::ReadWiFiConfig(kJson).size(), 1u);
}

TEST(NetworkJson, ARoundTripKeepsTheNetworkAndLosesExactlyWhatIsNotSaved) {
    std::vector<WifiInfo> saved(3);
    saved[0].essid = "Home \"5G\"";
    saved[0].key = "correct horse battery staple";
    saved[0].password = "pässwörd";
    saved[0].hidden = 1;
    saved[0].idle = 30;
    saved[0].security = 4;
    saved[0].wepmode = 2;
    saved[0].eaptype = "peap";
    saved[0].username = "anna";
    saved[0].usercert = "/cert";
    saved[0].cacert = "/ca";
    saved[0].domain = "example.org";
    saved[0].index = 7;
    saved[0].network_param.ip = "10.1.1.1";
    saved[0].network_param.proxy.pass = "x";
    saved[2].essid = "Office";
    ASSERT_EQ(NetworkParser::SaveNetworks(saved, kJson), 0);

    std::string text = Read(kJson);
    EXPECT_EQ(text.find("correct horse"), std::string::npos);
    EXPECT_EQ(text.find("pässwörd"), std::string::npos);
    EXPECT_NE(text.back(), '\n');
    // What another tool sees: members in order, keys enciphered, no network_param.
    EXPECT_EQ(Python(R"(
import json
doc = json.load(open("/mnt/ext1/system/config/network.json"), object_pairs_hook=list)
print(len(doc), [k for k, v in doc[0]], dict(doc[0])["key"][:1], repr(dict(doc[1])["key"]))
)"),
              "2 ['id', 'cacert', 'essid', 'hidden', 'idle', 'key', 'mode', 'security', 'wepmode', "
              "'eaptype', 'username', 'usercert', 'password'] ~ ''\n");

    std::vector<WifiInfo> read = NetworkParser::ReadWiFiConfig(kJson);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].essid, saved[0].essid);
    EXPECT_EQ(read[0].key, saved[0].key);
    EXPECT_EQ(read[0].password, saved[0].password);
    EXPECT_EQ(read[0].hidden, 1);
    EXPECT_EQ(read[0].idle, 30);
    EXPECT_EQ(read[0].security, 4);
    EXPECT_EQ(read[0].wepmode, 2);
    EXPECT_EQ(read[0].usercert, "/cert");
    EXPECT_EQ(read[0].cacert, "/ca");
    EXPECT_EQ(read[0].domain, "");
    EXPECT_EQ(read[0].index, 0);
    EXPECT_EQ(read[0].network_param.ip, "");
    EXPECT_EQ(read[0].network_param.proxy.pass, "");
    EXPECT_EQ(read[1].essid, "Office");
    EXPECT_EQ(read[1].index, 1);

    EXPECT_EQ(NetworkParser::SaveNetworks(saved, "/mnt/ext1/no/such/dir/network.json"), -1);
}

TEST(NetworkJson, KeysGoThroughTheDevicesOwnCipher) {
    std::string key = "hunter2";
    ASSERT_EQ(Secure(260, key), 0);
    EXPECT_EQ(key[0], '~');
    std::string again = "hunter2";
    Secure(260, again);
    EXPECT_EQ(again, key);  // the same text enciphers alike on one device
    EXPECT_EQ(DecryptString(key), "hunter2");

    // Another device (another state directory, another key) can't read it.
    std::string other_dir = "/tmp/other-device";
    auto other = qvtest::RunInChild([&] {
        ::setenv("QV_HOST_STATE_DIR", other_dir.c_str(), 1);
        return DecryptString(key) == key ? 0 : 1;
    });
    EXPECT_TRUE(other.Succeeded()) << other.Describe();

    std::string tampered = key;
    tampered[5] = tampered[5] == 'A' ? 'B' : 'A';
    EXPECT_EQ(DecryptString(tampered), tampered);
    EXPECT_EQ(DecryptString("~not cipher"), "~not cipher");
    EXPECT_EQ(DecryptString(""), "");

    // The 160-byte buffer: 106 bytes is the longest text whose cipher text fits; a longer one is
    // not handed back in the clear.
    std::string longest(106, 'k');
    ASSERT_EQ(Secure(260, longest), 0);
    EXPECT_LE(longest.size(), 159u);
    EXPECT_EQ(DecryptString(longest), std::string(106, 'k'));
    std::string too_long(107, 'k');
    EXPECT_EQ(Secure(260, too_long), -1);
    EXPECT_EQ(too_long, "");
    // A value that fills the whole buffer is cut to 159 bytes rather than sent unterminated.
    EXPECT_EQ(DecryptString(std::string(200, 'c')), std::string(159, 'c'));
    EXPECT_GE(qvhost_ipc_count(261), 5);
}

TEST(JsonCursor, MemberReadsSayWhatIsMissing) {
    JsonParser parser;
    ASSERT_EQ(
        parser.Init(R"({"s": "text", "n": 12, "z": null, "a": ["x", "", 3], "o": {"k": "v"}})"),
        QV_OK);
    std::string text = "untouched";
    EXPECT_EQ(parser.Parse("n", &text), 0);
    EXPECT_EQ(text, "12");
    text = "untouched";
    EXPECT_EQ(parser.Parse("z", &text), JsonParser::kNoMember);
    EXPECT_EQ(parser.Parse("missing", &text), JsonParser::kNoMember);
    EXPECT_EQ(text, "untouched");
    std::vector<std::string> list;
    EXPECT_EQ(parser.Parse("s", &list), JsonParser::kNotAnObject);
    EXPECT_EQ(parser.Parse("a", &list), 0);
    EXPECT_EQ(list, (std::vector<std::string>{"x", "3"}));
    int number = -1;
    EXPECT_FALSE(parser.ParseInt("z", &number));
    EXPECT_EQ(number, -1);
    EXPECT_EQ(parser.PushKey("s"), 0);  // into a string: nothing below it is an object
    EXPECT_EQ(parser.Parse("k", &text), JsonParser::kNotAnObject);
    EXPECT_EQ(parser.ParseArrayConstFunctor([](JsonParser&) { return 0; }),
              JsonParser::kNotAnObject);

    JsonParser empty;
    EXPECT_EQ(empty.Parse("k", &text), JsonParser::kNotAnObject);
    EXPECT_EQ(empty.PushKey("k"), JsonParser::kNotAnObject);
}

TEST(WifiRecords, ScanRecordsMergesAndShortRecords) {
    apinfo_s ap{};
    std::snprintf(ap.essid, sizeof ap.essid, "%s", "Scanned");
    ap.mode = 1;
    ap.security = 3;
    ap.order_value_0 = 70;
    ap.order_value_1 = -55;
    ap.extra_value = 9;
    ap.reserved60[11] = 'r';
    WifiInfo scanned(ap);
    EXPECT_EQ(scanned.essid, "Scanned");
    EXPECT_EQ(scanned.security, 3);
    EXPECT_EQ(scanned.idle, 10);
    EXPECT_EQ(std::memcmp(&scanned.ap, &ap, sizeof ap), 0);

    WifiInfo stored;
    stored.essid = "Scanned";
    stored.key = "k";
    stored.domain = "corp";
    stored.network_param.ip = "10.0.0.2";
    scanned.domain = "mine";
    scanned.UpdateConfiguration(stored);
    EXPECT_EQ(scanned.key, "k");
    EXPECT_EQ(scanned.network_param.ip, "10.0.0.2");
    EXPECT_EQ(scanned.domain, "mine");
    EXPECT_EQ(scanned.ap.order_value_0, 70);
    WifiInfo assigned = scanned;
    assigned = stored;
    EXPECT_EQ(assigned.domain, "corp");

    NetworkInfo line(ap, true, 0, false);
    EXPECT_EQ(line.kind, 0);
    EXPECT_EQ(line.id, "Scanned");
    EXPECT_EQ(line.name, "Scanned");
    EXPECT_EQ(line.order_value_0, 70);
    EXPECT_EQ(line.order_value_1, -55);
    EXPECT_EQ(line.extra_value, 9);
    EXPECT_TRUE(line.connected);
    EXPECT_FALSE(line.connecting);
}

// ---- The configuration form, through the host's network service ------------------------------

const std::string kRequest = "/tmp/net_to_add.cfg";
const std::string kList = "/tmp/known_networks.cfg";

// As a settings screen writes it: slot 9, a clear password under the "encrypted" flag.
void WriteRequest(const std::string& essid, const std::string& extra = "") {
    std::ofstream(kRequest) << "# written by hand\n"
                            << "wifi.9.name=" << essid << "\nwifi.9.essid=" << essid
                            << "\nwifi.9.hidden=0\nwifi.9.key=0123abcd\nwifi.9.security=3\n"
                            << "wifi.9.key_and_password_encrypted=1\nwifi.9.password=s3cret\n"
                            << "wifi.9.idle=15\n"
                            << extra;
}

TEST(NetworkService, NetworksAddedFromHandWrittenFilesAreListedInTheConfigurationForm) {
    WriteRequest("Home",
                 "wifi.9.network.ipconfig=1\nwifi.9.network.ip=10.0.0.7\n"
                 "wifi.9.network.mask=255.255.255.0\nwifi.9.network.gateway=10.0.0.1\n"
                 "wifi.9.network.dns1=10.0.0.53\nwifi.9.network.dns2=9.9.9.9\n"
                 "wifi.9.proxy=1\nwifi.9.proxy.host=proxy.lan\nwifi.9.proxy.port=8080\n"
                 "wifi.9.proxy.password=pp\n");
    ASSERT_EQ(NetAdd(kRequest.c_str()), NET_OK);
    // Another process adds the second one: both see the same list.
    auto child = qvtest::RunInChild([] {
        std::ofstream(kRequest) << "wifi.0.essid=Café\nwifi.0.key=~garbage\n";
        return NetAdd(kRequest.c_str());
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();

    ASSERT_EQ(GetNetList(kList.c_str()), NET_OK);
    iconfig* cfg = OpenConfig(kList.c_str(), 0);
    EXPECT_STREQ(ReadString(cfg, "wifi.0.essid", ""), "Home");
    EXPECT_STREQ(ReadString(cfg, "wifi.0.key", ""), "0123abcd");
    EXPECT_STREQ(ReadSecret(cfg, "wifi.0.password", ""), "s3cret");
    EXPECT_EQ(ReadInt(cfg, "wifi.0.security", 0), 3);
    EXPECT_EQ(ReadInt(cfg, "wifi.0.idle", 0), 15);
    EXPECT_STREQ(ReadString(cfg, "wifi.0.network.dns2", ""), "9.9.9.9");
    EXPECT_STREQ(ReadString(cfg, "wifi.0.proxy.password", ""), "pp");
    EXPECT_STREQ(ReadString(cfg, "wifi.0.name", "absent"), "absent");
    EXPECT_STREQ(ReadString(cfg, "wifi.0.key_and_password_encrypted", "absent"), "absent");
    EXPECT_STREQ(ReadString(cfg, "wifi.1.essid", ""), "Café");
    EXPECT_STREQ(ReadString(cfg, "wifi.1.key", ""), "~garbage");
    EXPECT_STREQ(ReadString(cfg, "wifi.2.essid", ""), "");
    CloseConfigNoSave(cfg);
    // The stored list keeps secrets out of plain sight.
    EXPECT_EQ(Read("/var/run/moorglass-host/networks.cfg").find("s3cret"), std::string::npos);

    // The same name replaces, and the connection follows the last network added.
    WriteRequest("Home");
    ASSERT_EQ(NetAdd(kRequest.c_str()), NET_OK);
    EXPECT_STREQ(NetInfo()->name, "Home");
    ASSERT_EQ(GetNetList(kList.c_str()), NET_OK);
    EXPECT_EQ(Read(kList).find("network.ip"), std::string::npos);
    EXPECT_NE(Read(kList).find("wifi.1.essid=Café"), std::string::npos);

    std::ofstream(kRequest) << "wifi.9.essid=\nother=1\n";
    EXPECT_LT(NetAdd(kRequest.c_str()), 0);
    EXPECT_LT(NetAdd("/tmp/none.cfg"), 0);
    qvhost_set_network_reachable(0);
    WriteRequest("Away");
    EXPECT_LT(NetAdd(kRequest.c_str()), 0);
    ASSERT_EQ(GetNetList(kList.c_str()), NET_OK);
    EXPECT_NE(Read(kList).find("wifi.2.essid=Away"), std::string::npos);
}

TEST(NetworkService, TheConnectedNetworksParametersComeFromTheService) {
    WriteRequest("Static",
                 "wifi.9.network.ipconfig=1\nwifi.9.network.ip=10.0.0.7\n"
                 "wifi.9.network.mask=255.255.255.0\nwifi.9.network.gateway=10.0.0.1\n"
                 "wifi.9.network.dns1=10.0.0.53\nwifi.9.network.dns2=9.9.9.9\n");
    ASSERT_EQ(NetAdd(kRequest.c_str()), NET_OK);
    EXPECT_EQ(NetInfo()->connected, 1);

    DetailedNetworkInfo current;
    std::snprintf(current.ap.essid, sizeof current.ap.essid, "Static");
    NetworkParam param = current.GetConnectedNetParam();
    EXPECT_EQ(param.ip, "10.0.0.7");
    EXPECT_EQ(param.mask, "255.255.255.0");
    EXPECT_EQ(param.gateway, "10.0.0.1");
    EXPECT_EQ(param.dns_list, (std::vector<std::string>{"10.0.0.53", "9.9.9.9"}));
    EXPECT_EQ(param.ipconfig, 0);

    DetailedNetworkInfo other;
    std::snprintf(other.ap.essid, sizeof other.ap.essid, "Elsewhere");
    EXPECT_TRUE(other.GetConnectedNetParam().ip.empty());

    // An automatic network reports the host's own address.
    WriteRequest("Dynamic");
    ASSERT_EQ(NetAdd(kRequest.c_str()), NET_OK);
    DetailedNetworkInfo dynamic;
    std::snprintf(dynamic.ap.essid, sizeof dynamic.ap.essid, "Dynamic");
    EXPECT_FALSE(dynamic.GetConnectedNetParam().ip.empty());

    qvhost_set_network_up(0);
    EXPECT_EQ(NetInfo()->connected, 0);
    EXPECT_TRUE(dynamic.GetConnectedNetParam().ip.empty());
    EXPECT_EQ(GetNetInfo("eth0"), nullptr);
    EXPECT_EQ(NetConnect2("Unknown", 0), -1);
    EXPECT_EQ(NetConnect2("Static", 0), 0);
    EXPECT_STREQ(NetInfo()->name, "Static");
}

}  // namespace
