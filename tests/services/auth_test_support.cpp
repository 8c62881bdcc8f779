#include "auth_test_support.h"

#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "common_utilities/services/icloudapi.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "store_apps.h"

namespace authtest {

void SetFamily(Family family) {
    const bool gqd = family == Family::Gqd;
    const bool flufliple = family == Family::Flufliple;
    const int partners[] = {0, 15, 16, 13};
    qvhost_set_partner(partners[static_cast<int>(family)]);
    qvhost_set_device_flag(0, gqd);
    qvhost_set_device_flag(2, flufliple);
    qvhost_set_device_flag(3, gqd || flufliple);
    qvhost_set_native_auth(flufliple);
}

void ResetDevice() {
    for (const char* name : {"global.cfg", "gqd_config.cfg", "umbreit_config.cfg",
                             "partner_store.cfg", "qvcloud.cfg"}) {
        ::unlink((std::string(kConfigDir) + name).c_str());
    }
    storeapps::ClearAnswers();
    storeapps::ClearJournal();
}

std::string ReadKey(const std::string& file, const std::string& key) {
    iconfig* config = OpenConfig(file.c_str(), 0);
    std::string value = ReadString(config, key.c_str(), "");
    if (value.empty()) value = ReadSecret(config, key.c_str(), "");
    CloseConfigNoSave(config);
    return value;
}

void WriteKey(const std::string& file, const std::string& key, const std::string& value) {
    iconfig* config = OpenConfig(file.c_str(), 0);
    WriteString(config, key.c_str(), value.c_str());
    CloseConfig(config);
}

void SignInToStore(const std::string& login) {
    WriteKey(Auth::GetConfigFilename(), Auth::GetLoginKey(), login);
}

bool CloudSignedIn() {
    std::unique_ptr<quorvel::utilities::ICloudApi> cloud(quorvel::utilities::createCloudApi());
    return cloud && cloud->IsLoggedIn();
}

std::vector<std::string> CommandLines() {
    std::vector<std::string> lines;
    for (const auto& entry : storeapps::ReadJournal()) {
        if (entry.kind == "start") lines.push_back(storeapps::CommandLine(entry));
    }
    return lines;
}

std::vector<std::string> WaitForCommandLines(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::vector<std::string> lines = CommandLines();
    while (lines.size() < count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lines = CommandLines();
    }
    return lines;
}

bool WaitForQuiet() {
    return storeapps::FollowScenario([](const storeapps::JournalEntry&) {}, 20000);
}

}  // namespace authtest
