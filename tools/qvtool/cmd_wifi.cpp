// qvtool wifi saved | save: the JSON file of stored networks, as the library reads and writes it
// (keys enciphered by the device's secure service).

#include <arpa/inet.h>
#include <sys/stat.h>

#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/network_parser.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::system::NetworkParser;
using quorvel::system::WifiInfo;

constexpr const char* kDefaultFile = "/mnt/ext1/system/config/network.json";
constexpr const char* kMask = "********";
constexpr size_t kLongestSecret = 106;  // what the secure service can encipher

std::string Secret(const std::string& value, bool show) {
    return value.empty() || show ? value : kMask;
}

std::string Settings(const WifiInfo& info) {
    const auto& param = info.network_param;
    std::string text = param.ipconfig ? param.ip + "/" + param.mask : "auto";
    if (param.proxy.proxyconfig) {
        text += ", proxy " + param.proxy.host + ":" + std::to_string(param.proxy.port);
    }
    return text;
}

int RunSaved(Args& args) {
    bool show = args.Flag("--show-keys");
    std::string file = args.NextOptional().value_or(kDefaultFile);
    args.Done();
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) throw Failure(kNotFound, "no file " + file);
    std::vector<WifiInfo> networks = NetworkParser::ReadWiFiConfig(file);
    Table table({"#", "ESSID", "SECURITY", "HIDDEN", "KEY", "PASSWORD", "USER", "ADDRESS"});
    for (const WifiInfo& info : networks) {
        table.AddRow({std::to_string(info.index), info.essid, std::to_string(info.security),
                      info.hidden ? "yes" : "no", Secret(info.key, show),
                      Secret(info.password, show), info.username, Settings(info)});
    }
    table.Print(std::cout);
    if (networks.empty()) std::cerr << "no networks in " << file << '\n';
    return kOk;
}

void RequireStorable(const std::string& what, const std::string& value) {
    if (value.size() > kLongestSecret) {
        throw Failure(kUsage, what + " is longer than " + std::to_string(kLongestSecret) +
                                  " bytes, more than the secure service can encipher");
    }
}

int RunSave(Args& args) {
    std::string key = args.Option("--key").value_or("");
    std::string password = args.Option("--password").value_or("");
    std::string security = args.Option("--security").value_or(key.empty() ? "0" : "3");
    bool hidden = args.Flag("--hidden");
    auto proxy = args.Option("--proxy");
    auto address = args.Option("--static");
    std::string file = args.Next("FILE");
    std::string essid = args.Next("SSID");
    if (address) {
        args.Next("GATEWAY");
        args.Next("DNS");
    }
    args.Done();
    if (essid.empty()) throw Failure(kUsage, "a network needs a name");
    RequireStorable("the key", key);
    RequireStorable("the password", password);

    std::vector<WifiInfo> networks;
    struct stat st {};
    if (::stat(file.c_str(), &st) == 0) networks = NetworkParser::ReadWiFiConfig(file);
    WifiInfo* record = nullptr;
    for (WifiInfo& info : networks)
        if (info.essid == essid) record = &info;
    if (!record) {
        networks.emplace_back();
        record = &networks.back();
        record->essid = essid;
    }
    record->key = key;
    record->password = password;
    record->security = static_cast<int>(ParseInteger(security, "--security"));
    record->hidden = hidden ? 1 : 0;
    if (NetworkParser::SaveNetworks(networks, file) != 0) {
        throw Failure(kFailed, "can't write " + file);
    }
    if (proxy || address) {
        std::cerr << "note: " << file
                  << " keeps no address or proxy settings; --static and --proxy were not "
                     "written\n";
    }
    std::cout << "saved " << essid << " in " << file << " (" << networks.size() << " networks)\n";
    return kOk;
}

const bool registered_saved = Register(
    {"wifi saved", "the networks of a JSON file of stored networks",
     "usage: qvtool wifi saved [--show-keys] [FILE]\n"
     "Lists the networks of FILE (default /mnt/ext1/system/config/network.json) as the device\n"
     "reads them: keys and passwords deciphered, shown as ******** unless --show-keys.\n"
     "Elements that aren't Wi-Fi networks or have no name are left out.\n",
     RunSaved});

const bool registered_save = Register(
    {"wifi save", "add or change a network in a JSON file of stored networks",
     "usage: qvtool wifi save FILE SSID [--key K] [--password P] [--security N] [--hidden]\n"
     "                        [--proxy HOST:PORT] [--static IP/MASK GATEWAY DNS]\n"
     "Writes FILE with the network SSID added, or changed if FILE has it; the others stay.\n"
     "Keys and passwords are enciphered by the device (at most 106 bytes each). --security\n"
     "defaults to 3 with a key, 0 without. The JSON form keeps no address or proxy settings:\n"
     "--static and --proxy are accepted, and reported as not written.\n",
     RunSave});

}  // namespace
}  // namespace qvtool
