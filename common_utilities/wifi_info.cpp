#include "common_utilities/wifi_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorvel {
namespace system {
namespace {

constexpr int kEncryptRequest = 260;
constexpr int kDecryptRequest = 261;
constexpr size_t kSecureBufferSize = 160;
constexpr const char* kInterface = "eth0";

apinfo_s UnscannedRecord() {
    apinfo_s ap;
    std::memset(&ap, 0, sizeof ap);
    ap.order_value_0 = 1;
    return ap;
}

std::string FieldText(const char* field) {
    return std::string(field, ::strnlen(field, NET_ADDRESS_FIELD));
}

std::string SecureRequest(int command, const std::string& text) {
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    buffer.resize(kSecureBufferSize, '\0');
    // A value that fills the buffer would reach the service without its end.
    buffer[kSecureBufferSize - 1] = '\0';
    mg_ipc_request(command, 0, buffer.data(), static_cast<int>(std::strlen(buffer.data()) + 1),
                   static_cast<int>(kSecureBufferSize));
    return std::string(buffer.data(), ::strnlen(buffer.data(), kSecureBufferSize));
}

// The platform's allocated result, freed whatever happens.
struct Freed {
    explicit Freed(char* block) : block(block) {}
    ~Freed() { std::free(block); }
    Freed(const Freed&) = delete;
    Freed& operator=(const Freed&) = delete;
    char* block;
};

}  // namespace

WifiInfo::WifiInfo() : ap(UnscannedRecord()) {}

WifiInfo::WifiInfo(const apinfo_s& scanned) : ap(scanned) {
    essid.assign(ap.essid, ::strnlen(ap.essid, sizeof ap.essid));
    mode = ap.mode;
    security = ap.security;
}

void WifiInfo::UpdateConfiguration(const WifiInfo& other) {
    apinfo_s kept_ap = ap;
    std::string kept_domain = domain;
    *this = other;
    ap = kept_ap;
    domain = kept_domain;
}

NetworkParam DetailedNetworkInfo::GetConnectedNetParam() {
    NetworkParam param;
    net_info_s* info = NetInfo();
    std::string current = info && info->connected ? info->name : "";
    if (current != std::string(ap.essid, ::strnlen(ap.essid, sizeof ap.essid))) return param;

    Freed address(GetNetInfo(kInterface));
    if (address.block) {
        param.ip = FieldText(address.block);
        param.mask = FieldText(address.block + NET_ADDRESS_FIELD);
    }
    Freed gateway(GetNetGateway(kInterface));
    if (gateway.block) param.gateway = gateway.block;

    Freed dns(GetNetDNS());
    if (!dns.block) return param;
    int count = 0;
    std::memcpy(&count, dns.block, sizeof count);
    for (int i = 0; i < count; ++i)
        param.dns_list.push_back(FieldText(dns.block + sizeof count + i * NET_ADDRESS_FIELD));
    return param;
}

NetworkInfo::NetworkInfo(const apinfo_s& ap, bool connected, int, bool connecting)
    : id(ap.essid, ::strnlen(ap.essid, sizeof ap.essid)),
      name(id),
      order_value_0(ap.order_value_0),
      connected(connected),
      security(ap.security),
      order_value_1(ap.order_value_1),
      extra_value(ap.extra_value),
      connecting(connecting) {}

std::string DecryptString(const std::string& text) {
    return SecureRequest(kDecryptRequest, text);
}

std::string EncryptString(const std::string& text) {
    return SecureRequest(kEncryptRequest, text);
}

}  // namespace system
}  // namespace quorvel
