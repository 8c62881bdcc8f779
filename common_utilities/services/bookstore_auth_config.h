// BookStoreAuthConfigs: signing in to the partner's bookstore and to the cloud, across
// applications.
//
// Each step of a sign-in runs another application. The machine's state travels on that
// application's command line as "--auth-state=<scenario>,<state>"; the application rebuilds the
// machine with parseState and reports its step with Proceed, which starts the next application
// and tells the caller what to do next (FutherAction). A scenario starts with startScenario in
// the first application, or in "/zelgrot/bin/login-scenario.app", which runScenarioStarter starts
// with "--scenario=<name>". Nothing is kept in files: the machine lives on command lines and in
// memory, one instance per process and thread.
//
// The order of the steps depends on the partner (GetCustomizedPartner) and on flags of the device
// profile: flags 0 and 3 make the GQD family (the store, then the cloud), flags 2 and 3 the
// Flufliple family (the native sign-in application). The numbers of the enumerations are what
// applications exchange; the names are ours.
//
// The static part answers where the partner keeps its credentials, whether the user is signed in
// to the store, and signs out of everything.
#pragma once

#include <map>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

struct QV_EXPORT PartnerStoreInfo {
    std::string config_filename;
    std::string login_key;
    std::string password_key;
    std::string token_key;  // empty: the partner has no token
};

class QV_EXPORT BookStoreAuthConfigs {
public:
    // Scoped: its last value shares its name with the handler of the store's own sign-in.
    enum class AuthScenario : int {
        StartStore = 0,
        StoreLoginFromSettings = 1,
        StoreRegisterFromSettings = 2,
        CloudLogin = 3,
        LoginFromStore = 4,  // started by the store itself; no command line form
    };

    enum AuthStep : int {
        StepStart = 0,
        StepStoreLogin = 1,
        StepStoreRegister = 2,
        StepStoreSetCloudParams = 3,
        StepCloudAuth = 4,
        StepStore = 5,
        StepAskLogin = 6,
        StepFinished = 7,
    };

    enum StepResult : int {
        ResultOk = 0,
        ResultSkip = 1,
        ResultCancel = 2,
    };

    // What the caller of startScenario or Proceed does next.
    enum FutherAction : int {
        ActionNone = 0,     // nothing more for this step
        ActionDone = 1,     // the scenario is over for this caller
        ActionExit = 2,     // the caller's part is over; the store goes on by itself
        ActionAskUser = 3,  // ask the user, then Proceed(StepAskLogin, answer)
    };

    using EPARTNER_ID = int;

    // ---- Credentials and signing out --------------------------------------------------------
    static PartnerStoreInfo getCurrentPartnerStoreInfo();
    static std::string GetConfigFilename();
    static std::string GetLoginKey();
    static std::string GetPasswordKey();
    static std::string GetTokenKey();
    // Whether the store's login is stored in the partner's credentials file.
    static bool isLoggedIn();
    // Removes the store credentials of every partner, and signs out of the cloud.
    static void logOut();
    // Starts login-scenario.app with the scenario's command line form (none above CloudLogin).
    static void runScenarioStarter(AuthScenario scenario);
    static void runBookStoreLogin(bool unused);

    // ---- The machine -------------------------------------------------------------------------
    // "<scenario>,<state>" in decimal, as the next application receives it.
    std::string stateToString() const;
    // Reads stateToString's form; a damaged text is logged and leaves what wasn't read.
    void parseState(const std::string& text);
    FutherAction startScenario(AuthScenario scenario);
    FutherAction Proceed(AuthStep step, StepResult result);

    // The applications of the steps; each receives "--auth-state=" and stateToString().
    void runStore();
    void runStoreInLoginMode();
    void runStoreInRegisterMode();
    void runStoreInSetCloudParamsMode();
    void runStoreNativeLogin();
    void runStoreNativeRegister();
    void runCloudAuth();

    // One handler per partner family and scenario.
    FutherAction BookstoreFormDesktop(AuthStep step, StepResult result);
    FutherAction GqdUmbreitBookstoreFromDesktop(AuthStep step, StepResult result);
    FutherAction GqdUmbreitBookstoreLoginFromSettings(AuthStep step, StepResult result);
    FutherAction GqdUmbreitCloudLogin(AuthStep step, StepResult result);
    FutherAction FluflipleFromDesktop(AuthStep step, StepResult result);
    FutherAction FluflipleLoginFromSettings(AuthStep step, StepResult result);
    FutherAction FluflipleCloudLogin(AuthStep step, StepResult result);
    FutherAction LoginFromStore(AuthStep step, StepResult result);

    AuthScenario scenario = AuthScenario::StartStore;
    AuthStep state = StepStart;

private:
    using Handler = FutherAction (BookStoreAuthConfigs::*)(AuthStep, StepResult);
    using Run = void (BookStoreAuthConfigs::*)();
    // The handler of `scenario` for this device; null when its flags fit no family.
    Handler ChooseHandler() const;
    // The step check every handler but LoginFromStore makes first.
    void CheckStep(AuthStep step) const;
    void RunStoreApp(const char* path, const char* name);
    void StartStoreSignIn(Run login, Run registration);
    // The cloud sign-in of both families, with the store application of each.
    FutherAction CloudLoginSteps(StepResult result, Run store_login, Run hand_over);

    static const std::map<EPARTNER_ID, PartnerStoreInfo> partners_info_;
};

}  // namespace utilities
}  // namespace quorvel
