// The stored Wi-Fi networks of the host's network service, and what it reports of the current
// connection.
//
// Networks are kept in "networks.cfg" of the host state directory, in the configuration form
// itself ("wifi.0.essid", "wifi.0.key", ...), so every process of the device sees the same list;
// keys and passwords are stored as secrets (masked in the file). Changes are read, edited and
// written under the file's exclusive lock, so two processes adding networks at once lose nothing.
// The network of the connection is "current" in "wifi.cfg" beside it.
//
// A host has no radio: the address, gateway and name servers of a connection are the stored
// network's own when it is configured statically (network.ipconfig non-zero), and otherwise the
// host's: the address of the interface asked for (or of the one that carries the default route),
// the default route's gateway, and the name servers of /etc/resolv.conf.

#include "wifi_networks.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "config_file.h"
#include "host_state.h"
#include "moorglass.h"
#include "secure_service.h"
#include "state_file_cache.h"

namespace qvhost {
namespace {

constexpr const char* kStoreName = "networks.cfg";
constexpr int kDecryptRequest = 261;
constexpr size_t kSecureBuffer = 160;

// One network: its fields by the key behind "wifi.N.", in the order they came.
struct Network {
    std::string essid;
    std::vector<std::pair<std::string, ConfigValue>> fields;  // "essid" not among them

    const ConfigValue* Find(const std::string& field) const {
        for (const auto& entry : fields)
            if (entry.first == field) return &entry.second;
        return nullptr;
    }
    std::string Text(const std::string& field) const {
        const ConfigValue* value = Find(field);
        return value ? value->text : std::string();
    }
};

bool IsSecretField(const std::string& field) {
    return field == "key" || field == "password" || field == "proxy.password";
}

// Keys that describe the request rather than the network.
bool IsTransientField(const std::string& field) {
    return field == "name" || field == "open_key" || field == "key_and_password_encrypted";
}

// The networks of a document, by slot number, those without an essid left out.
std::vector<Network> NetworksOf(const ConfigDocument& doc) {
    std::map<long, Network> slots;
    doc.ForEach([&slots](const std::string& key, const ConfigValue& value) {
        if (key.compare(0, 5, "wifi.") != 0) return;
        char* end = nullptr;
        long slot = std::strtol(key.c_str() + 5, &end, 10);
        if (end == key.c_str() + 5 || *end != '.' || slot < 0) return;
        std::string field(end + 1);
        Network& network = slots[slot];
        if (field == "essid") {
            network.essid = value.text;
        } else {
            network.fields.emplace_back(field, value);
        }
    });
    std::vector<Network> networks;
    for (auto& entry : slots)
        if (!entry.second.essid.empty()) networks.push_back(std::move(entry.second));
    return networks;
}

void ClearNetworks(ConfigDocument& doc) {
    std::vector<std::string> keys;
    doc.ForEach([&keys](const std::string& key, const ConfigValue&) {
        if (key.compare(0, 5, "wifi.") == 0) keys.push_back(key);
    });
    for (const auto& key : keys)
        doc.Remove(key);
}

// Writes the networks as slots 0, 1, ...; `secret` says which fields are stored as secrets.
template <typename SecretRule>
void PutNetworks(ConfigDocument& doc, const std::vector<Network>& networks, SecretRule secret) {
    for (size_t i = 0; i < networks.size(); ++i) {
        std::string prefix = "wifi." + std::to_string(i) + ".";
        doc.Set(prefix + "essid", {networks[i].essid, ValueKind::kPlain});
        for (const auto& [field, value] : networks[i].fields) {
            doc.Set(prefix + field,
                    {value.text, secret(field) ? ValueKind::kSecret : ValueKind::kPlain});
        }
    }
}

std::string StorePath() {
    return StatePath(kStoreName);
}

std::vector<Network> StoredNetworks() {
    return NetworksOf(ConfigDocument::Parse(LoadConfigText(StorePath())));
}

StateFileCache& ConnectionFile() {
    static StateFileCache file("wifi.cfg");
    return file;
}

// Deciphered by the secure service, or as it stands when it isn't cipher text.
std::string Deciphered(const std::string& text) {
    if (text.size() >= kSecureBuffer) return text;
    char buffer[kSecureBuffer] = {};
    std::memcpy(buffer, text.c_str(), text.size());
    int rc = SecureRequest(kDecryptRequest, buffer, static_cast<int>(text.size() + 1),
                           static_cast<int>(kSecureBuffer));
    return rc == 0 ? std::string(buffer) : text;
}

// The networks a request file describes, ready to be stored.
std::vector<Network> RequestedNetworks(const std::string& path) {
    std::vector<Network> networks = NetworksOf(ConfigDocument::Parse(LoadConfigText(path)));
    for (Network& network : networks) {
        bool enciphered = std::atoi(network.Text("key_and_password_encrypted").c_str()) != 0;
        network.fields.erase(
            std::remove_if(network.fields.begin(), network.fields.end(),
                           [](const auto& entry) { return IsTransientField(entry.first); }),
            network.fields.end());
        for (auto& [field, value] : network.fields) {
            if (enciphered && (field == "key" || field == "password")) {
                value.text = Deciphered(value.text);
            }
        }
    }
    return networks;
}

void Store(const std::vector<Network>& added) {
    EnsureStateDir();
    SaveConfigText(StorePath(), [&added](ConfigDocument& doc) {
        std::vector<Network> networks = NetworksOf(doc);
        for (const Network& network : added) {
            auto same = std::find_if(networks.begin(), networks.end(),
                                     [&](const Network& n) { return n.essid == network.essid; });
            if (same != networks.end()) {
                *same = network;
            } else {
                networks.push_back(network);
            }
        }
        ClearNetworks(doc);
        PutNetworks(doc, networks, IsSecretField);
    });
}

std::optional<Network> CurrentNetwork() {
    std::string current = ConnectionFile().Get("current", "");
    if (current.empty()) return std::nullopt;
    for (Network& network : StoredNetworks())
        if (network.essid == current) return network;
    return std::nullopt;
}

// The current network when it is configured statically.
std::optional<Network> StaticNetwork() {
    auto network = CurrentNetwork();
    if (!network || std::atoi(network->Text("network.ipconfig").c_str()) == 0) return std::nullopt;
    return network;
}

bool Connected() {
    return GetNetState() == NET_STATE_CONNECTED;
}

std::string Dotted(const sockaddr* address) {
    if (!address || address->sa_family != AF_INET) return {};
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                sizeof text);
    return text;
}

struct RouteInfo {
    std::string interface;
    std::string gateway;
};

// The default route of the host, from the kernel's routing table.
RouteInfo DefaultRoute() {
    std::ifstream routes("/proc/net/route");
    std::string line;
    std::getline(routes, line);  // the header
    while (std::getline(routes, line)) {
        std::istringstream fields(line);
        std::string interface, destination, gateway;
        if (!(fields >> interface >> destination >> gateway) || destination != "00000000") continue;
        in_addr address{};
        address.s_addr = static_cast<in_addr_t>(std::strtoul(gateway.c_str(), nullptr, 16));
        char text[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &address, text, sizeof text);
        return {interface, text};
    }
    return {};
}

// Address and mask of the host's interface `name` (or of the default route's, when the host has
// no interface of that name).
std::pair<std::string, std::string> HostAddress(const std::string& name) {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return {};
    std::pair<std::string, std::string> found, fallback;
    std::string route_interface = DefaultRoute().interface;
    for (ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        auto pair = std::make_pair(Dotted(entry->ifa_addr), Dotted(entry->ifa_netmask));
        if (name == entry->ifa_name && found.first.empty()) found = pair;
        if (route_interface == entry->ifa_name && fallback.first.empty()) fallback = pair;
    }
    ::freeifaddrs(list);
    return found.first.empty() ? fallback : found;
}

std::vector<std::string> HostNameServers() {
    std::vector<std::string> servers;
    std::ifstream resolv("/etc/resolv.conf");
    std::string line;
    while (std::getline(resolv, line)) {
        std::istringstream fields(line);
        std::string word, address;
        in_addr parsed{};
        if (fields >> word >> address && word == "nameserver" &&
            ::inet_pton(AF_INET, address.c_str(), &parsed) == 1) {
            servers.push_back(address);
        }
    }
    return servers;
}

std::vector<std::string> StaticNameServers(const Network& network) {
    std::vector<std::string> servers;
    for (int i = 1;; ++i) {
        std::string server = network.Text("network.dns" + std::to_string(i));
        if (server.empty()) return servers;
        servers.push_back(server);
    }
}

void PutField(char* field, const std::string& text) {
    std::strncpy(field, text.c_str(), NET_ADDRESS_FIELD - 1);
}

}  // namespace

bool MakeCurrentNetwork(const std::string& essid) {
    for (const Network& network : StoredNetworks()) {
        if (network.essid == essid) {
            ConnectionFile().Set("current", essid.c_str());
            return true;
        }
    }
    return false;
}

std::string CurrentNetworkName() {
    return ConnectionFile().Get("current", "");
}

std::optional<StoredCredentials> FindStoredNetwork(const std::string& essid) {
    for (const Network& network : StoredNetworks()) {
        if (network.essid != essid) continue;
        return StoredCredentials{network.Text("key"), network.Text("password"),
                                 std::atoi(network.Text("security").c_str())};
    }
    return std::nullopt;
}

std::vector<std::string> StoredNetworkNames() {
    std::vector<std::string> names;
    for (const Network& network : StoredNetworks())
        names.push_back(network.essid);
    return names;
}

bool ForgetStoredNetwork(const std::string& essid) {
    EnsureStateDir();
    bool found = false;
    SaveConfigText(StorePath(), [&](ConfigDocument& doc) {
        std::vector<Network> networks = NetworksOf(doc);
        auto end = std::remove_if(networks.begin(), networks.end(),
                                  [&](const Network& n) { return n.essid == essid; });
        found = end != networks.end();
        networks.erase(end, networks.end());
        ClearNetworks(doc);
        PutNetworks(doc, networks, IsSecretField);
    });
    return found;
}

}  // namespace qvhost

extern "C" {

int GetNetList(const char* path) {
    if (!path || !*path) return -1;
    std::vector<qvhost::Network> networks = qvhost::StoredNetworks();
    ::unlink(path);
    auto written = qvhost::SaveConfigText(path, [&networks](qvhost::ConfigDocument& doc) {
        // Readers take the password as a secret and everything else as plain text.
        qvhost::PutNetworks(doc, networks, [](const std::string& f) { return f == "password"; });
    });
    return written ? NET_OK : -1;
}

int NetAdd(const char* path) {
    if (!path || !*path) return -1;
    std::vector<qvhost::Network> networks = qvhost::RequestedNetworks(path);
    if (networks.empty()) return -1;
    qvhost::Store(networks);
    return NetConnect2(networks.back().essid.c_str(), 0);
}

net_info_s* NetInfo(void) {
    thread_local net_info_s info;
    std::memset(&info, 0, sizeof info);
    info.connected = qvhost::Connected() ? 1 : 0;
    std::string current = qvhost::CurrentNetworkName();
    std::strncpy(info.name, current.c_str(), sizeof info.name - 1);
    return &info;
}

char* GetNetInfo(const char* ifname) {
    if (!qvhost::Connected()) return nullptr;
    std::pair<std::string, std::string> address;
    if (auto network = qvhost::StaticNetwork()) {
        address = {network->Text("network.ip"), network->Text("network.mask")};
    } else {
        address = qvhost::HostAddress(ifname ? ifname : "");
    }
    if (address.first.empty()) return nullptr;
    char* block = static_cast<char*>(std::calloc(2, NET_ADDRESS_FIELD));
    if (!block) return nullptr;
    qvhost::PutField(block, address.first);
    qvhost::PutField(block + NET_ADDRESS_FIELD, address.second);
    return block;
}

char* GetNetGateway(const char* /*ifname*/) {
    if (!qvhost::Connected()) return nullptr;
    auto network = qvhost::StaticNetwork();
    std::string gateway =
        network ? network->Text("network.gateway") : qvhost::DefaultRoute().gateway;
    return gateway.empty() ? nullptr : ::strdup(gateway.c_str());
}

char* GetNetDNS(void) {
    if (!qvhost::Connected()) return nullptr;
    auto network = qvhost::StaticNetwork();
    std::vector<std::string> servers =
        network ? qvhost::StaticNameServers(*network) : qvhost::HostNameServers();
    if (servers.empty()) return nullptr;
    int count = static_cast<int>(servers.size());
    char* block =
        static_cast<char*>(std::calloc(1, sizeof count + servers.size() * NET_ADDRESS_FIELD));
    if (!block) return nullptr;
    std::memcpy(block, &count, sizeof count);
    for (size_t i = 0; i < servers.size(); ++i)
        qvhost::PutField(block + sizeof count + i * NET_ADDRESS_FIELD, servers[i]);
    return block;
}

}  // extern "C"
