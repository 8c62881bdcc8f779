// One program for the four applications of a sign-in; the name it was started by decides its part
// (see store_apps.h). It does what the device's application would do at each step, reports it to
// the sign-in machine, and records everything in the journal.

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "common_utilities/services/bookstore_auth_config.h"
#include "common_utilities/services/icloudapi.h"
#include "moorglass.h"
#include "store_apps.h"

namespace {

using quorvel::utilities::BookStoreAuthConfigs;
using quorvel::utilities::ICloudApi;
using Auth = BookStoreAuthConfigs;

constexpr const char* kScenarioOption = "--scenario=";
constexpr const char* kStateOption = "--auth-state=";

std::string app;

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

void Note(const std::string& text) {
    storeapps::Record("note", app, {text});
}

bool ScenarioByName(const std::string& name, Auth::AuthScenario* scenario) {
    static const char* names[] = {"StartStore", "StoreLoginFromSettings",
                                  "StoreRegisterFromSettings", "CloudLogin"};
    for (int i = 0; i < 4; ++i) {
        if (name == names[i]) {
            *scenario = static_cast<Auth::AuthScenario>(i);
            return true;
        }
    }
    return false;
}

// The store signs the user in (or registers them): the partner's credentials file gets them.
Auth::StepResult StoreSignIn(bool registering) {
    quorvel::utilities::PartnerStoreInfo info = Auth::getCurrentPartnerStoreInfo();
    iconfig* config = OpenConfig(info.config_filename.c_str(), 0);
    if (!config) return Auth::ResultCancel;
    const std::string login = storeapps::Login();
    WriteString(config, info.login_key.c_str(), login.c_str());
    WriteSecret(config, info.password_key.c_str(), "host-password");
    if (!info.token_key.empty()) {
        WriteString(config, info.token_key.c_str(), ("token-" + std::to_string(getpid())).c_str());
    }
    CloseConfig(config);
    Note(std::string(registering ? "registered" : "signed in") + " to the store as " + login +
         " (" + info.config_filename + ")");
    return Auth::ResultOk;
}

std::string StoredValue(const std::string& key) {
    if (key.empty()) return {};
    iconfig* config = OpenConfig(Auth::GetConfigFilename().c_str(), 0);
    std::string value = config ? ReadString(config, key.c_str(), "") : "";
    if (config) CloseConfigNoSave(config);
    return value;
}

// What the store knows of the user, as the cloud takes it.
ICloudApi::AutoAuthParamsMap StoreParams() {
    ICloudApi::AutoAuthParamsMap params;
    std::string login = StoredValue(Auth::GetLoginKey());
    if (login.empty()) return params;
    params[ICloudApi::AutoAuthLogin] = login;
    std::string token = StoredValue(Auth::GetTokenKey());
    if (!token.empty()) params[ICloudApi::AutoAuthToken] = token;
    return params;
}

std::unique_ptr<ICloudApi> Cloud() {
    std::unique_ptr<ICloudApi> cloud(quorvel::utilities::createCloudApi());
    if (!cloud) Note("no cloud library");
    return cloud;
}

Auth::StepResult HandCloudParams() {
    auto cloud = Cloud();
    if (!cloud) return Auth::ResultCancel;
    ICloudApi::AutoAuthParamsMap params = StoreParams();
    if (params.empty()) {
        Note("nobody is signed in to the store");
        return Auth::ResultCancel;
    }
    cloud->setParamsForAutoAuth(params);
    Note("handed the store's login to the cloud");
    return Auth::ResultOk;
}

Auth::StepResult CloudSignIn() {
    auto cloud = Cloud();
    if (!cloud) return Auth::ResultCancel;
    // Signed in to the store just now, the store's login is what the cloud signs in with.
    if (cloud->getParamsForAutoAuth().empty()) cloud->setParamsForAutoAuth(StoreParams());
    if (cloud->startAutoAuth(true) != 0) {
        Note("the cloud refused to sign in");
        return Auth::ResultCancel;
    }
    Note("signed in to the cloud as " + cloud->getParamsForAutoAuth()[ICloudApi::AutoAuthLogin]);
    return Auth::ResultOk;
}

// This application's part of the step, when the user goes along with it.
Auth::StepResult DoStepWork(Auth::AuthStep step) {
    switch (step) {
        case Auth::StepStoreLogin:
            return StoreSignIn(false);
        case Auth::StepStoreRegister:
            return StoreSignIn(true);
        case Auth::StepStoreSetCloudParams:
            return HandCloudParams();
        case Auth::StepCloudAuth:
            return CloudSignIn();
        case Auth::StepStore:
            Note("the store runs");
            return Auth::ResultOk;
        default:
            return Auth::ResultOk;
    }
}

Auth::FutherAction Report(Auth& auth, Auth::AuthStep step, Auth::StepResult result) {
    Auth::FutherAction action = auth.Proceed(step, result);
    storeapps::Record("proceed", app,
                      {std::to_string(step), std::to_string(result), std::to_string(action),
                       auth.stateToString()});
    return action;
}

Auth::FutherAction DoStep(Auth& auth) {
    const Auth::AuthStep step = auth.state;
    auto result = static_cast<Auth::StepResult>(storeapps::ResultFor(step));
    if (result == Auth::ResultOk) {
        result = DoStepWork(step);
    } else {
        Note("the user chose " + std::string(result == Auth::ResultSkip ? "to skip" : "to cancel"));
    }
    return Report(auth, step, result);
}

Auth::FutherAction Start(Auth& auth, Auth::AuthScenario scenario) {
    Auth::FutherAction action = auth.startScenario(scenario);
    storeapps::Record(
        "scenario", app,
        {std::to_string(static_cast<int>(scenario)), std::to_string(action), auth.stateToString()});
    return action;
}

int Run(const std::vector<std::string>& args) {
    if (args.empty()) {
        Note("started without a sign-in");
        return 0;
    }
    Auth auth;
    Auth::FutherAction action = Auth::ActionNone;
    const std::string& arg = args[0];
    if (StartsWith(arg, kScenarioOption)) {
        Auth::AuthScenario scenario{};
        if (!ScenarioByName(arg.substr(std::string(kScenarioOption).size()), &scenario)) {
            Note("unknown scenario");
            return 2;
        }
        action = Start(auth, scenario);
    } else if (arg == storeapps::kLoginFromStoreOption) {
        action = Start(auth, Auth::AuthScenario::LoginFromStore);
        // The store's own sign-in: it goes on by itself with the login.
        if (action == Auth::ActionExit && auth.state == Auth::StepStoreLogin) action = DoStep(auth);
    } else if (StartsWith(arg, kStateOption)) {
        auth.parseState(arg.substr(std::string(kStateOption).size()));
        if (auth.state == Auth::StepFinished) {
            storeapps::Record("finished", app, {});
            return 0;
        }
        action = DoStep(auth);
    } else {
        Note("unknown argument");
        return 2;
    }
    while (action == Auth::ActionAskUser) {
        auto answer = static_cast<Auth::StepResult>(storeapps::ResultFor(Auth::StepAskLogin));
        storeapps::Record("ask", app, {std::to_string(answer)});
        action = Report(auth, Auth::StepAskLogin, answer);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path = argv[0];
    app = path.substr(path.rfind('/') + 1);
    std::vector<std::string> args(argv + 1, argv + argc);
    storeapps::Record("start", app, args);
    if (storeapps::RecordOnly()) return 0;
    return Run(args);
}
