// qvtool auth ...: signing in to the store and the cloud as the device's applications do it. A
// scenario runs on the host's sign-in applications ("/zelgrot/bin/*.app"), each a process of its
// own that the sign-in machine starts; the tool follows their journal and prints every step.

#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "boardprofile.h"
#include "cli.h"
#include "common_utilities/services/bookstore_auth_config.h"
#include "common_utilities/services/icloudapi.h"
#include "moorglass.h"
#include "store_apps.h"

namespace qvtool {
namespace {

using quorvel::utilities::BookStoreAuthConfigs;
using quorvel::utilities::ICloudApi;
using Scenario = BookStoreAuthConfigs::AuthScenario;

constexpr int kDefaultTimeoutSeconds = 30;

const std::vector<std::string> kScenarioNames{"StartStore", "StoreLoginFromSettings",
                                              "StoreRegisterFromSettings", "CloudLogin",
                                              "LoginFromStore"};

Scenario ParseScenario(const std::string& word) {
    for (size_t i = 0; i < kScenarioNames.size(); ++i) {
        if (word == kScenarioNames[i] || word == std::to_string(i)) {
            return static_cast<Scenario>(i);
        }
    }
    throw Failure(kUsage, "no scenario '" + word +
                              "' (StartStore, StoreLoginFromSettings, "
                              "StoreRegisterFromSettings, CloudLogin, LoginFromStore)");
}

int ParseStep(const std::string& word) {
    static const std::map<std::string, int> steps{
        {"login", 1}, {"register", 2}, {"cloud-params", 3}, {"cloud", 4}, {"store", 5}, {"ask", 6}};
    auto it = steps.find(word);
    if (it != steps.end()) return it->second;
    long long step = ParseInteger(word, "step");
    if (step < 0 || step > 7) throw Failure(kUsage, "steps are numbered 0 to 7");
    return static_cast<int>(step);
}

int ParseResult(const std::string& word) {
    if (word == "ok") return BookStoreAuthConfigs::ResultOk;
    if (word == "skip") return BookStoreAuthConfigs::ResultSkip;
    if (word == "cancel") return BookStoreAuthConfigs::ResultCancel;
    return static_cast<int>(ParseInteger(word, "result"));
}

// "--answer STEP=RESULT": what the application of STEP (or the user, for "ask") reports.
void SetAnswer(const std::string& option) {
    auto equals = option.find('=');
    if (equals == std::string::npos) throw Failure(kUsage, "--answer takes STEP=RESULT");
    storeapps::SetResult(ParseStep(option.substr(0, equals)),
                         ParseResult(option.substr(equals + 1)));
}

std::string StoredValue(const std::string& key) {
    if (key.empty() || ::access(BookStoreAuthConfigs::GetConfigFilename().c_str(), F_OK) != 0) {
        return {};
    }
    iconfig* config = OpenConfig(BookStoreAuthConfigs::GetConfigFilename().c_str(), 0);
    std::string value = config ? ReadString(config, key.c_str(), "") : "";
    if (config) CloseConfigNoSave(config);
    return value;
}

void PrintSignIns() {
    const bool store = BookStoreAuthConfigs::isLoggedIn();
    std::cout << "store    "
              << (store ? "signed in as " + StoredValue(BookStoreAuthConfigs::GetLoginKey())
                        : std::string("signed out"));
    if (store && !BookStoreAuthConfigs::GetTokenKey().empty()) {
        bool token = !StoredValue(BookStoreAuthConfigs::GetTokenKey()).empty();
        std::cout << (token ? ", with a token" : ", without a token");
    }
    std::cout << '\n';
    std::unique_ptr<ICloudApi> cloud(quorvel::utilities::createCloudApi());
    std::cout << "cloud    ";
    if (!cloud) {
        std::cout << "no cloud library on this device\n";
    } else if (cloud->IsLoggedIn()) {
        auto params = cloud->getParamsForAutoAuth();
        std::cout << "signed in"
                  << (params.count(ICloudApi::AutoAuthLogin)
                          ? " as " + params[ICloudApi::AutoAuthLogin]
                          : std::string())
                  << '\n';
    } else {
        std::cout << "signed out\n";
    }
}

void StartFirstApplication(Scenario scenario) {
    if (scenario != Scenario::LoginFromStore) {
        BookStoreAuthConfigs::runScenarioStarter(scenario);
        return;
    }
    // The store's own sign-in begins in the store.
    std::string path = std::string(storeapps::kAppDir) + "bookstore.app";
    std::vector<char*> argv{path.data(), const_cast<char*>(storeapps::kLoginFromStoreOption),
                            nullptr};
    if (NewTask(path.c_str(), argv.data(), "bookstore.app", "bookstore.app", nullptr, 0) < 0) {
        throw Failure(kFailed, "could not start " + path);
    }
}

int RunStart(Args& args) {
    std::vector<std::string> answers = args.Options("--answer");
    std::optional<std::string> login = args.Option("--login");
    std::optional<std::string> timeout = args.Option("--timeout");
    Scenario scenario = ParseScenario(args.Next("SCENARIO"));
    args.Done();
    long long seconds = timeout ? ParseInteger(*timeout, "timeout") : kDefaultTimeoutSeconds;
    if (seconds <= 0) throw Failure(kUsage, "the timeout is a number of seconds above 0");
    for (const std::string& name : storeapps::AppNames()) {
        if (::access((storeapps::kAppDir + name).c_str(), X_OK) != 0) {
            throw Failure(kNotFound, "the sign-in application " + std::string(storeapps::kAppDir) +
                                         name + " is not installed");
        }
    }
    storeapps::ClearAnswers();
    storeapps::ClearJournal();
    for (const std::string& answer : answers)
        SetAnswer(answer);
    if (login) storeapps::SetLogin(*login);

    StartFirstApplication(scenario);
    bool ended = storeapps::FollowScenario(
        [](const storeapps::JournalEntry& entry) {
            std::cout << storeapps::Describe(entry) << std::endl;
        },
        static_cast<int>(seconds * 1000));
    if (!ended)
        throw Failure(kFailed, "the scenario did not end within " + std::to_string(seconds) + " s");
    std::cout << "-- scenario over\n";
    PrintSignIns();
    return kOk;
}

int RunState(Args& args) {
    args.Done();
    auto info = BookStoreAuthConfigs::getCurrentPartnerStoreInfo();
    std::cout << "partner  " << GetCustomizedPartner()
              << (IsPartnerSupportNativeAuth() ? ", native sign-in" : "") << '\n'
              << "file     " << info.config_filename << '\n'
              << "keys     " << info.login_key << ", " << info.password_key
              << (info.token_key.empty() ? "" : ", " + info.token_key) << '\n';
    PrintSignIns();
    return kOk;
}

int RunLogout(Args& args) {
    args.Done();
    BookStoreAuthConfigs::logOut();
    PrintSignIns();
    return kOk;
}

const bool registered_start = Register(
    {"auth start", "run a sign-in scenario across the host's applications",
     "usage: qvtool auth start SCENARIO [--answer STEP=RESULT]... [--login NAME] [--timeout S]\n"
     "Runs SCENARIO (StartStore, StoreLoginFromSettings, StoreRegisterFromSettings, CloudLogin,\n"
     "LoginFromStore, or 0 to 4) as the device does: the settings start login-scenario.app\n"
     "(the store itself for LoginFromStore), and each application starts the next with the\n"
     "state on its command line. Prints each application's command line and what it reported,\n"
     "until none runs any more, then who is signed in. The order of the steps depends on the\n"
     "partner and flags (see qvtool host partner, host flag, host native-auth).\n"
     "  --answer STEP=RESULT  what the application of STEP reports: STEP is login, register,\n"
     "                        cloud-params, cloud, store or ask (the user's answer to signing\n"
     "                        in to the store), RESULT ok, skip, cancel or a number; default ok\n"
     "  --login NAME          the login the store signs in with (reader@example.com)\n"
     "  --timeout S           give up after S seconds (30); exit 1\n"
     "Exit 3 when the sign-in applications are not installed in /zelgrot/bin.\n",
     RunStart});

const bool registered_state = Register(
    {"auth state", "where the store's credentials live and who is signed in",
     "usage: qvtool auth state\n"
     "The partner's credentials file and keys, whether the store and the cloud are signed in.\n",
     RunState});

const bool registered_logout = Register(
    {"auth logout", "sign out of the store (every partner's keys) and the cloud",
     "usage: qvtool auth logout\n"
     "Signs out as the settings do: removes the store credentials of partners 0, 13, 14 and 15\n"
     "(whichever the device has) and signs out of the cloud. With native sign-in the browser\n"
     "is killed instead (killall -9 browser.app, on the whole host), and partner_store.cfg,\n"
     "the native sign-in's own file, stays as it is.\n",
     RunLogout});

}  // namespace
}  // namespace qvtool
