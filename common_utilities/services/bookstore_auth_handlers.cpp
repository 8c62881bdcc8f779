// BookStoreAuthConfigs: choosing the handler for the device's partner family, and the handlers,
// one transition table each. A handler sets the new state before it starts an application, since
// the application receives the state on its command line.

#include "boardprofile.h"
#include "common_utilities/services/bookstore_auth_config.h"

namespace quorvel {
namespace utilities {

namespace {

using Auth = BookStoreAuthConfigs;

enum class Family { NoPartner, Gqd, Flufliple, Neither };

Family DeviceFamily() {
    if (GetCustomizedPartner() == 0) return Family::NoPartner;
    if (getDeviceConfigFlag(0) && getDeviceConfigFlag(3)) return Family::Gqd;
    if (getDeviceConfigFlag(2) && getDeviceConfigFlag(3)) return Family::Flufliple;
    return Family::Neither;
}

// The store's own sign-in (scenario 4) needs, on a partner's device, flags 0 and 3.
bool StoreMaySignIn() {
    return GetCustomizedPartner() == 0 || (getDeviceConfigFlag(0) && getDeviceConfigFlag(3));
}

bool IsKnownResult(Auth::StepResult result) {
    return result == Auth::ResultOk || result == Auth::ResultSkip || result == Auth::ResultCancel;
}

}  // namespace

BookStoreAuthConfigs::Handler BookStoreAuthConfigs::ChooseHandler() const {
    const Family family = DeviceFamily();
    if (family == Family::Neither) return nullptr;
    const bool flufliple = family == Family::Flufliple;
    switch (scenario) {
        case AuthScenario::StartStore:
            if (family == Family::NoPartner) return &Auth::BookstoreFormDesktop;
            return flufliple ? &Auth::FluflipleFromDesktop : &Auth::GqdUmbreitBookstoreFromDesktop;
        case AuthScenario::StoreLoginFromSettings:
        case AuthScenario::StoreRegisterFromSettings:
            return flufliple ? &Auth::FluflipleLoginFromSettings
                             : &Auth::GqdUmbreitBookstoreLoginFromSettings;
        case AuthScenario::CloudLogin:
            return flufliple ? &Auth::FluflipleCloudLogin : &Auth::GqdUmbreitCloudLogin;
        default:
            return nullptr;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::startScenario(AuthScenario new_scenario) {
    QV_LOG_INFO("startScenario called scenario = %d", static_cast<int>(new_scenario));
    scenario = new_scenario;
    state = StepStart;
    if (scenario == AuthScenario::LoginFromStore) {
        if (StoreMaySignIn()) return LoginFromStore(StepStart, ResultOk);
        state = StepFinished;
        return ActionExit;
    }
    if (scenario < AuthScenario::StartStore || scenario > AuthScenario::CloudLogin) {
        return ActionNone;
    }
    if (DeviceFamily() == Family::Neither) {
        // A partner of no known family has the store (or the cloud) do it all.
        state = StepFinished;
        scenario == AuthScenario::CloudLogin ? runCloudAuth() : runStore();
        return ActionNone;
    }
    return (this->*ChooseHandler())(StepStart, ResultOk);
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::Proceed(AuthStep step, StepResult result) {
    QV_LOG_INFO("Proceed called scenario = %d, step = %d, result = %d", static_cast<int>(scenario),
                static_cast<int>(step), static_cast<int>(result));
    if (scenario == AuthScenario::LoginFromStore) {
        if (StoreMaySignIn()) return LoginFromStore(step, result);
        state = StepFinished;
        return ActionExit;
    }
    Handler handler = ChooseHandler();
    return handler ? (this->*handler)(step, result) : ActionNone;
}

void BookStoreAuthConfigs::CheckStep(AuthStep step) const {
    if (step != state) {
        QV_LOG_ERROR("Wrong state %d. expected %d", static_cast<int>(step),
                     static_cast<int>(state));
    }
}

// The first step of a sign-in from the settings: the store's login, or its registration.
void BookStoreAuthConfigs::StartStoreSignIn(Run login, Run registration) {
    if (scenario == AuthScenario::StoreRegisterFromSettings) {
        state = StepStoreRegister;
        (this->*registration)();
    } else {
        state = StepStoreLogin;
        (this->*login)();
    }
}

// ---- Handlers ---------------------------------------------------------------------------------

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::BookstoreFormDesktop(AuthStep step,
                                                                              StepResult) {
    CheckStep(step);
    QV_LOG_INFO("BookstoreFormDesktop handler");
    isLoggedIn();  // logs where the credentials are looked for
    if (state == StepStart) {
        state = StepStore;
        runStore();
    } else {
        QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
    }
    return ActionExit;
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::GqdUmbreitBookstoreFromDesktop(
    AuthStep step, StepResult) {
    CheckStep(step);
    QV_LOG_INFO("GqdUmbreitBookstoreFromDesktop handler");
    isLoggedIn();
    switch (state) {
        case StepStart:
            state = StepStore;
            runStore();
            return ActionExit;
        case StepStore:
            state = StepCloudAuth;
            runCloudAuth();
            return ActionExit;
        case StepCloudAuth:
            state = StepFinished;
            return ActionDone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionExit;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::GqdUmbreitBookstoreLoginFromSettings(
    AuthStep step, StepResult result) {
    CheckStep(step);
    QV_LOG_INFO("GqdUmbreitBookstoreLoginFromSettings handler");
    switch (state) {
        case StepStart:
            StartStoreSignIn(&Auth::runStoreInLoginMode, &Auth::runStoreInRegisterMode);
            return ActionNone;
        case StepStoreLogin:
        case StepStoreRegister:
            if (result == ResultOk) {
                state = StepCloudAuth;
                runCloudAuth();
                return ActionNone;
            }
            state = StepFinished;
            if (IsKnownResult(result)) return ActionDone;
            QV_LOG_ERROR("Wrong step result %d", static_cast<int>(result));
            return ActionNone;
        case StepCloudAuth:
            state = StepFinished;
            return ActionDone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionNone;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::GqdUmbreitCloudLogin(AuthStep step,
                                                                              StepResult result) {
    CheckStep(step);
    QV_LOG_INFO("GqdUmbreitCloudLogin handler");
    return CloudLoginSteps(result, &Auth::runStoreInLoginMode, &Auth::runStoreInSetCloudParamsMode);
}

// Both families sign in to the cloud alike; only the store application of each step differs.
BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::CloudLoginSteps(StepResult result,
                                                                         Run store_login,
                                                                         Run hand_over) {
    switch (state) {
        case StepStart:
            if (!isLoggedIn()) {
                state = StepAskLogin;
                return ActionAskUser;
            }
            state = StepStoreSetCloudParams;
            (this->*hand_over)();
            return ActionNone;
        case StepStoreLogin:
        case StepStoreSetCloudParams:
            if (result != ResultOk) {
                state = StepFinished;
                return ActionDone;
            }
            state = StepCloudAuth;
            runCloudAuth();
            return ActionDone;
        case StepCloudAuth:
            state = StepFinished;
            return ActionDone;
        case StepAskLogin:
            if (result != ResultOk) {
                state = StepFinished;
                return ActionNone;
            }
            state = StepStoreLogin;
            (this->*store_login)();
            return ActionNone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionNone;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::FluflipleFromDesktop(AuthStep step,
                                                                              StepResult result) {
    CheckStep(step);
    QV_LOG_INFO("FluflipleFromDesktop handler");
    switch (state) {
        case StepStart:
            if (isLoggedIn()) {
                state = StepFinished;
                runStore();
                return ActionExit;
            }
            state = StepStoreLogin;
            runStoreNativeLogin();
            return ActionNone;
        case StepStoreLogin:
            switch (result) {
                case ResultOk:
                    state = StepCloudAuth;
                    runCloudAuth();
                    return ActionDone;
                case ResultSkip:
                    state = StepFinished;
                    runStore();
                    return ActionDone;
                case ResultCancel:
                    state = StepFinished;
                    return ActionDone;
                default:
                    return ActionNone;  // stays at the login: the answer means nothing
            }
        case StepCloudAuth:
            state = StepFinished;
            runStore();
            return ActionDone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionNone;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::FluflipleLoginFromSettings(
    AuthStep step, StepResult result) {
    CheckStep(step);
    QV_LOG_INFO("FluflipleLoginFromSettings handler");
    switch (state) {
        case StepStart:
            StartStoreSignIn(&Auth::runStoreNativeLogin, &Auth::runStoreNativeRegister);
            return ActionNone;
        case StepStoreLogin:
        case StepStoreRegister:
            if (result != ResultOk) {
                state = StepFinished;
                return ActionDone;
            }
            state = StepCloudAuth;
            runCloudAuth();
            return ActionDone;
        case StepCloudAuth:
            state = StepFinished;
            runStore();
            return ActionDone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionNone;
    }
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::FluflipleCloudLogin(AuthStep step,
                                                                             StepResult result) {
    CheckStep(step);
    QV_LOG_INFO("FluflipleCloudLogin handler");
    // The native application also hands the login to the cloud.
    return CloudLoginSteps(result, &Auth::runStoreNativeLogin, &Auth::runStoreNativeLogin);
}

BookStoreAuthConfigs::FutherAction BookStoreAuthConfigs::LoginFromStore(AuthStep,
                                                                        StepResult result) {
    QV_LOG_INFO("LoginFromStore handler");
    switch (state) {
        case StepStart:
            state = StepStoreLogin;
            return ActionExit;
        case StepStoreLogin:
            if (result == ResultOk) {
                state = StepCloudAuth;
                runCloudAuth();
                return ActionNone;
            }
            state = StepFinished;
            if (IsKnownResult(result)) return ActionExit;
            QV_LOG_ERROR("Wrong step result %d", static_cast<int>(result));
            return ActionNone;
        case StepCloudAuth:
            state = StepFinished;
            return ActionDone;
        default:
            QV_LOG_ERROR("Unhandled state %d", static_cast<int>(state));
            return ActionExit;
    }
}

}  // namespace utilities
}  // namespace quorvel
