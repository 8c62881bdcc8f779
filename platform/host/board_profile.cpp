// Device profile of the host platform. Host defaults describe a plain device with no partner and
// no card; the profile file in the host state directory overrides them, and is read at every call
// so that a change made by one process (a test putting the card in) is seen by all at once.

#include <time.h>

#include <cstdlib>
#include <string>

#include "boardprofile.h"
#include "host_state.h"
#include "moorglass_host.h"

namespace {

constexpr const char* kDefaultSoftwareVersion = "6.8.1.host";
constexpr const char* kDefaultDeviceModel = "Quorvel 740 Host";

std::string ProfileValue(const char* key, const char* fallback) {
    auto values = qvhost::ReadKeyValues(qvhost_profile_path());
    auto it = values.find(key);
    return it == values.end() ? fallback : it->second;
}

int ProfileInt(const char* key, int fallback) {
    std::string text = ProfileValue(key, "");
    if (text.empty()) return fallback;
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

void SetProfileValue(const std::string& key, const char* value) {
    qvhost::UpdateKeyValue(qvhost_profile_path(), key, value);
}

// The strings handed out must outlive the call; one buffer per thread and function keeps them
// valid until that thread asks again.
const char* Keep(std::string& slot, std::string value) {
    slot = std::move(value);
    return slot.c_str();
}

}  // namespace

extern "C" {

const char* GetSoftwareVersion(void) {
    thread_local std::string slot;
    return Keep(slot, ProfileValue("software_version", kDefaultSoftwareVersion));
}

const char* GetDeviceModel(void) {
    thread_local std::string slot;
    return Keep(slot, ProfileValue("device_model", kDefaultDeviceModel));
}

int GetCustomizedPartner(void) {
    return ProfileInt("partner", 0);
}

int IsPartnerSupportNativeAuth(void) {
    return ProfileInt("native_auth", 0) != 0;
}

int getDeviceConfigFlag(int flag) {
    return ProfileInt(("flag." + std::to_string(flag)).c_str(), 0) != 0;
}

int IsSDinserted(void) {
    return ProfileInt("card_inserted", 0) != 0;
}

const char* GetExternalCardSerialNumber(void) {
    if (!IsSDinserted()) return nullptr;
    thread_local std::string slot;
    std::string serial = ProfileValue("card_serial", "");
    return serial.empty() ? nullptr : Keep(slot, serial);
}

unsigned long long hw_boottime_ms(void) {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
}

const char* qvhost_profile_path(void) {
    thread_local std::string path;
    path = qvhost::StatePath("profile.cfg");
    return path.c_str();
}

void qvhost_set_card_inserted(int inserted) {
    SetProfileValue("card_inserted", inserted ? "1" : "0");
}

void qvhost_set_card_serial(const char* serial_hex) {
    SetProfileValue("card_serial", serial_hex && *serial_hex ? serial_hex : nullptr);
}

void qvhost_set_partner(int partner_id) {
    SetProfileValue("partner", std::to_string(partner_id).c_str());
}

void qvhost_set_native_auth(int supported) {
    SetProfileValue("native_auth", supported ? "1" : "0");
}

void qvhost_set_device_flag(int flag, int value) {
    SetProfileValue("flag." + std::to_string(flag), value ? "1" : "0");
}

void qvhost_set_software_version(const char* version) {
    SetProfileValue("software_version", version);
}

void qvhost_set_device_model(const char* model) {
    SetProfileValue("device_model", model);
}

}  // extern "C"
