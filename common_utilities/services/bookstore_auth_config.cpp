// BookStoreAuthConfigs: the partner table, credentials, signing out, the state's text form and
// the applications the steps start. The handlers are in bookstore_auth_handlers.cpp.

#include "common_utilities/services/bookstore_auth_config.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <vector>

#include "boardprofile.h"
#include "common_utilities/config.h"
#include "common_utilities/run_program.h"
#include "common_utilities/services/icloudapi.h"

namespace quorvel {
namespace utilities {

namespace {

constexpr const char* kGlobalConfig = "/mnt/ext1/system/config/global.cfg";
constexpr const char* kLibronetUserId = "libronet_user_id";
constexpr int kLibronetPartner = 13;

constexpr const char* kBookstorePath = "/zelgrot/bin/bookstore.app";
constexpr const char* kBookstoreName = "bookstore.app";
constexpr const char* kNativeAuthPath = "/zelgrot/bin/store-native-auth.app";
constexpr const char* kNativeAuthName = "store-native-auth.app";
constexpr const char* kCloudAuthPath = "/zelgrot/bin/qvcloud_auth.app";
constexpr const char* kCloudAuthName = "qvcloud_auth.app";
constexpr const char* kScenarioStarterPath = "/zelgrot/bin/login-scenario.app";
constexpr const char* kScenarioStarterName = "login-scenario.app";

// Partners that sign in natively keep their credentials in a file of their own.
PartnerStoreInfo NativeStoreInfo() {
    return {"/mnt/ext1/system/config/partner_store.cfg", "username", "password", "access_token"};
}

// Starts an application with one argument (or none), as a task of the device. Whether it started
// is not looked at: the next step's application reports through its own Proceed.
void StartTask(const char* path, const char* name, const std::string& argument) {
    std::vector<char*> argv{const_cast<char*>(path)};
    if (!argument.empty()) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    NewTask(path, argv.data(), name, name, nullptr, 128);
}

// A signed decimal int with an optional sign and nothing else around it.
std::optional<int> ParseDecimal(const std::string& text) {
    if (text.empty() || !(std::isdigit(static_cast<unsigned char>(text.back())))) return {};
    const char* begin = text.c_str();
    if (*begin != '+' && *begin != '-' && !std::isdigit(static_cast<unsigned char>(*begin))) {
        return {};
    }
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(begin, &end, 10);
    if (errno == ERANGE || *end != '\0' || value < INT_MIN || value > INT_MAX) return {};
    return static_cast<int>(value);
}

// A missing file holds no credentials; opening and saving it would make an empty one, and signing
// out must not leave files behind for partners the device never had.
bool FileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

void RemoveCredentials(const PartnerStoreInfo& info) {
    if (!FileExists(info.config_filename)) return;
    CfgWrapper config(info.config_filename, CfgWrapper::kSaveAndClose);
    if (!config.isOpened()) return;
    config.remove(info.login_key);
    config.remove(info.password_key);
    if (!info.token_key.empty()) config.remove(info.token_key);
}

const char* ScenarioForm(BookStoreAuthConfigs::AuthScenario scenario) {
    switch (scenario) {
        case BookStoreAuthConfigs::AuthScenario::StartStore:
            return "--scenario=StartStore";
        case BookStoreAuthConfigs::AuthScenario::StoreLoginFromSettings:
            return "--scenario=StoreLoginFromSettings";
        case BookStoreAuthConfigs::AuthScenario::StoreRegisterFromSettings:
            return "--scenario=StoreRegisterFromSettings";
        case BookStoreAuthConfigs::AuthScenario::CloudLogin:
            return "--scenario=CloudLogin";
        default:
            return "";
    }
}

}  // namespace

const std::map<BookStoreAuthConfigs::EPARTNER_ID, PartnerStoreInfo>
    BookStoreAuthConfigs::partners_info_ = {
        {0, {kGlobalConfig, "tarvey_login", "tarvey_pass", ""}},
        {13, {kGlobalConfig, "tarvey_login", "tarvey_pass", ""}},
        {14, {"/mnt/ext1/system/config/umbreit_config.cfg", "user_name", "password", "session_id"}},
        {15, {"/mnt/ext1/system/config/gqd_config.cfg", "user_name", "password", "session_id"}},
};

// ---- Credentials ------------------------------------------------------------------------------

PartnerStoreInfo BookStoreAuthConfigs::getCurrentPartnerStoreInfo() {
    if (IsPartnerSupportNativeAuth()) return NativeStoreInfo();
    auto it = partners_info_.find(GetCustomizedPartner());
    return it != partners_info_.end() ? it->second : partners_info_.at(0);
}

std::string BookStoreAuthConfigs::GetConfigFilename() {
    return getCurrentPartnerStoreInfo().config_filename;
}

std::string BookStoreAuthConfigs::GetLoginKey() {
    return getCurrentPartnerStoreInfo().login_key;
}

std::string BookStoreAuthConfigs::GetPasswordKey() {
    return getCurrentPartnerStoreInfo().password_key;
}

std::string BookStoreAuthConfigs::GetTokenKey() {
    return getCurrentPartnerStoreInfo().token_key;
}

bool BookStoreAuthConfigs::isLoggedIn() {
    const std::string filename = GetConfigFilename();
    QV_LOG_INFO("BookStoreAuthConfigs::GetConfigFilename is %s", filename.c_str());
    if (!FileExists(filename)) return false;
    iconfig* config = OpenConfig(filename.c_str(), 0);
    if (!config) return false;
    const std::string login = ReadString(config, GetLoginKey().c_str(), "");
    QV_LOG_INFO("GetLoginKey is %s", login.c_str());
    CloseConfigNoSave(config);
    return !login.empty();
}

void BookStoreAuthConfigs::logOut() {
    QV_LOG_INFO(">>>   LogOut   <<<");
    // Every partner's keys, not only this device's: credentials a former partner setting left
    // behind must not survive a sign-out.
    for (const auto& entry : partners_info_)
        RemoveCredentials(entry.second);

    const std::string filename = GetConfigFilename();
    if (FileExists(filename)) {
        CfgWrapper config(filename, CfgWrapper::kSaveAndClose);
        if (config.isOpened() && GetCustomizedPartner() == kLibronetPartner) {
            config.remove(kLibronetUserId);
        }
    }
    if (IsPartnerSupportNativeAuth()) RunProgram({"killall", "-9", "browser.app"});

    // A device without the cloud library has no cloud session to end.
    ICloudApi* cloud = createCloudApi();
    if (cloud && cloud->haveQVCloud() && cloud->needAutoRegistrationToCloud()) cloud->logOut();
    delete cloud;
}

// ---- The state's text form ----------------------------------------------------------------------

std::string BookStoreAuthConfigs::stateToString() const {
    return std::to_string(static_cast<int>(scenario)) + "," +
           std::to_string(static_cast<int>(state));
}

void BookStoreAuthConfigs::parseState(const std::string& text) {
    std::istringstream fields(text);
    std::string field;
    std::optional<int> value;
    if (!std::getline(fields, field, ',') || !(value = ParseDecimal(field))) {
        QV_LOG_ERROR("Failed to parse BookStoreAuthConfigs state");
        return;
    }
    scenario = static_cast<AuthScenario>(*value);
    if (!std::getline(fields, field, ',') || !(value = ParseDecimal(field))) {
        QV_LOG_ERROR("Failed to parse BookStoreAuthConfigs state");
        return;
    }
    state = static_cast<AuthStep>(*value);
    QV_LOG_INFO("parseState scenario = %d, state = %d", static_cast<int>(scenario),
                static_cast<int>(state));
}

// ---- Applications -----------------------------------------------------------------------------

void BookStoreAuthConfigs::RunStoreApp(const char* path, const char* name) {
    StartTask(path, name, "--auth-state=" + stateToString());
}

void BookStoreAuthConfigs::runStore() {
    QV_LOG_INFO("runStore");
    RunStoreApp(kBookstorePath, kBookstoreName);
}

void BookStoreAuthConfigs::runStoreInLoginMode() {
    QV_LOG_INFO("runStoreInLoginMode");
    RunStoreApp(kBookstorePath, kBookstoreName);
}

void BookStoreAuthConfigs::runStoreInRegisterMode() {
    QV_LOG_INFO("runStoreInLoginMode");  // the line of its twin, which log readers know
    RunStoreApp(kBookstorePath, kBookstoreName);
}

void BookStoreAuthConfigs::runStoreInSetCloudParamsMode() {
    QV_LOG_INFO("runStoreInSetCloudParamsMode");
    RunStoreApp(kBookstorePath, kBookstoreName);
}

void BookStoreAuthConfigs::runStoreNativeLogin() {
    QV_LOG_INFO("runStoreNativeLogin");
    RunStoreApp(kNativeAuthPath, kNativeAuthName);
}

void BookStoreAuthConfigs::runStoreNativeRegister() {
    QV_LOG_INFO("runStoreNativeRegister");
    RunStoreApp(kNativeAuthPath, kNativeAuthName);
}

void BookStoreAuthConfigs::runCloudAuth() {
    QV_LOG_INFO("runCloudAuth");
    RunStoreApp(kCloudAuthPath, kCloudAuthName);
}

void BookStoreAuthConfigs::runScenarioStarter(AuthScenario scenario) {
    QV_LOG_INFO("runScenarioStarter");
    StartTask(kScenarioStarterPath, kScenarioStarterName, ScenarioForm(scenario));
}

void BookStoreAuthConfigs::runBookStoreLogin(bool /*unused*/) {
    runScenarioStarter(AuthScenario::StoreLoginFromSettings);
}

}  // namespace utilities
}  // namespace quorvel
