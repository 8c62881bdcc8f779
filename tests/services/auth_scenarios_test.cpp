// Every sign-in scenario of every partner family, travelling across the host's sign-in
// applications: each started by the previous one through NewTask, each rebuilding the machine
// from its command line. What is checked is what the applications received and what the device
// holds at the end.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "auth_test_support.h"
#include "moorglass.h"
#include "store_apps.h"

namespace {

using namespace authtest;

struct Case {
    Scenario scenario;
    bool signed_in_before;
    std::map<int, int> answers;  // step -> result the application of that step reports
    std::vector<std::string> command_lines;
    std::string last_state;  // the state the last report left the machine in
    bool store_after;
    bool cloud_after;
};

// Starts the scenario where the device starts it: the settings' scenario starter, or the store
// for its own sign-in.
void StartScenario(Scenario scenario) {
    if (scenario != Scenario::LoginFromStore) {
        Auth::runScenarioStarter(scenario);
        return;
    }
    std::string path = "/zelgrot/bin/bookstore.app";
    std::vector<char*> argv{path.data(), const_cast<char*>(storeapps::kLoginFromStoreOption),
                            nullptr};
    ASSERT_GT(NewTask(path.c_str(), argv.data(), "bookstore.app", "bookstore.app", nullptr, 0), 0);
}

std::string LastState() {
    std::string state;
    for (const auto& entry : storeapps::ReadJournal()) {
        if (entry.kind == "proceed" || entry.kind == "scenario") state = entry.fields.back();
    }
    return state;
}

void RunCases(Family family, const std::vector<Case>& cases) {
    SetFamily(family);
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + ", scenario " +
                     std::to_string(static_cast<int>(c.scenario)));
        ResetDevice();
        if (c.signed_in_before) SignInToStore();
        for (const auto& [step, result] : c.answers)
            storeapps::SetResult(step, result);

        StartScenario(c.scenario);
        ASSERT_TRUE(WaitForQuiet()) << "the scenario did not end";
        EXPECT_EQ(CommandLines(), c.command_lines);
        EXPECT_EQ(LastState(), c.last_state);
        EXPECT_EQ(Auth::isLoggedIn(), c.store_after);
        EXPECT_EQ(CloudSignedIn(), c.cloud_after);
    }
}

// The tables read as rows: one scenario run each.
// clang-format off
const std::string kStarter = "login-scenario.app ";
const std::string kStore = "bookstore.app --auth-state=";
const std::string kNative = "store-native-auth.app --auth-state=";
const std::string kCloud = "qvcloud_auth.app --auth-state=";
const std::string kStoreSignsIn = "bookstore.app --login-from-store";
const std::string kStart = kStarter + "--scenario=StartStore";
const std::string kLogin = kStarter + "--scenario=StoreLoginFromSettings";
const std::string kRegister = kStarter + "--scenario=StoreRegisterFromSettings";
const std::string kCloudLogin = kStarter + "--scenario=CloudLogin";

constexpr int kLoginStep = Auth::StepStoreLogin;
constexpr int kAsk = Auth::StepAskLogin;
constexpr int kSkip = Auth::ResultSkip;
constexpr int kCancel = Auth::ResultCancel;

TEST(AuthScenarios, WithoutPartner) {
    RunCases(Family::NoPartner,
             {
                 // The store opens and goes on by itself; its report changes nothing.
                 {Scenario::StartStore, false, {}, {kStart, kStore + "0,5"}, "0,5", false, false},
                 {Scenario::StoreLoginFromSettings, false, {},
                  {kLogin, kStore + "1,1", kCloud + "1,4"}, "1,7", true, true},
                 {Scenario::StoreLoginFromSettings, false, {{kLoginStep, kCancel}},
                  {kLogin, kStore + "1,1"}, "1,7", false, false},
                 {Scenario::StoreRegisterFromSettings, false, {},
                  {kRegister, kStore + "2,2", kCloud + "2,4"}, "2,7", true, true},
                 {Scenario::CloudLogin, false, {},
                  {kCloudLogin, kStore + "3,1", kCloud + "3,4"}, "3,7", true, true},
                 {Scenario::CloudLogin, true, {},
                  {kCloudLogin, kStore + "3,3", kCloud + "3,4"}, "3,7", true, true},
                 {Scenario::CloudLogin, false, {{kAsk, kCancel}}, {kCloudLogin}, "3,7", false,
                  false},
                 {Scenario::LoginFromStore, false, {}, {kStoreSignsIn, kCloud + "4,4"}, "4,7",
                  true, true},
                 {Scenario::LoginFromStore, false, {{kLoginStep, kSkip}}, {kStoreSignsIn}, "4,7",
                  false, false},
             });
}

TEST(AuthScenarios, GqdFamily) {
    RunCases(Family::Gqd,
             {
                 // The cloud has nobody to sign in: the store was opened, not signed in to.
                 {Scenario::StartStore, false, {}, {kStart, kStore + "0,5", kCloud + "0,4"}, "0,7",
                  false, false},
                 {Scenario::StartStore, true, {}, {kStart, kStore + "0,5", kCloud + "0,4"}, "0,7",
                  true, true},
                 {Scenario::StoreLoginFromSettings, false, {},
                  {kLogin, kStore + "1,1", kCloud + "1,4"}, "1,7", true, true},
                 {Scenario::StoreRegisterFromSettings, false, {{kLoginStep + 1, kSkip}},
                  {kRegister, kStore + "2,2"}, "2,7", false, false},
                 {Scenario::CloudLogin, false, {},
                  {kCloudLogin, kStore + "3,1", kCloud + "3,4"}, "3,7", true, true},
                 {Scenario::CloudLogin, true, {},
                  {kCloudLogin, kStore + "3,3", kCloud + "3,4"}, "3,7", true, true},
                 {Scenario::LoginFromStore, false, {}, {kStoreSignsIn, kCloud + "4,4"}, "4,7",
                  true, true},
             });
    // The last case signed in: the partner's own file, with its token.
    EXPECT_EQ(ReadKey("/mnt/ext1/system/config/gqd_config.cfg", "user_name"),
              "reader@example.com");
    EXPECT_NE(ReadKey("/mnt/ext1/system/config/gqd_config.cfg", "session_id"), "");
}

TEST(AuthScenarios, FluflipleFamily) {
    RunCases(Family::Flufliple,
             {
                 {Scenario::StartStore, false, {},
                  {kStart, kNative + "0,1", kCloud + "0,4", kStore + "0,7"}, "0,7", true, true},
                 {Scenario::StartStore, true, {}, {kStart, kStore + "0,7"}, "0,7", true, false},
                 {Scenario::StartStore, false, {{kLoginStep, kSkip}},
                  {kStart, kNative + "0,1", kStore + "0,7"}, "0,7", false, false},
                 {Scenario::StartStore, false, {{kLoginStep, kCancel}}, {kStart, kNative + "0,1"},
                  "0,7", false, false},
                 {Scenario::StoreLoginFromSettings, false, {},
                  {kLogin, kNative + "1,1", kCloud + "1,4", kStore + "1,7"}, "1,7", true, true},
                 {Scenario::StoreRegisterFromSettings, false, {},
                  {kRegister, kNative + "2,2", kCloud + "2,4", kStore + "2,7"}, "2,7", true, true},
                 {Scenario::CloudLogin, true, {},
                  {kCloudLogin, kNative + "3,3", kCloud + "3,4"}, "3,7", true, true},
                 {Scenario::CloudLogin, false, {{kAsk, kSkip}}, {kCloudLogin}, "3,7", false, false},
                 // Without flag 0 the store may not sign in by itself.
                 {Scenario::LoginFromStore, false, {}, {kStoreSignsIn}, "4,7", false, false},
                 {Scenario::CloudLogin, false, {},
                  {kCloudLogin, kNative + "3,1", kCloud + "3,4"}, "3,7", true, true},
             });
    // The last case signed in: the native sign-in's own file, with its token.
    EXPECT_EQ(ReadKey("/mnt/ext1/system/config/partner_store.cfg", "username"),
              "reader@example.com");
    EXPECT_NE(ReadKey("/mnt/ext1/system/config/partner_store.cfg", "access_token"), "");
}

TEST(AuthScenarios, PartnerOfNoFamily) {
    RunCases(Family::Neither,
             {
                 {Scenario::StartStore, false, {}, {kStart, kStore + "0,7"}, "0,7", false, false},
                 {Scenario::StoreLoginFromSettings, false, {}, {kLogin, kStore + "1,7"}, "1,7",
                  false, false},
                 {Scenario::StoreRegisterFromSettings, false, {}, {kRegister, kStore + "2,7"},
                  "2,7", false, false},
                 {Scenario::CloudLogin, false, {}, {kCloudLogin, kCloud + "3,7"}, "3,7", false,
                  false},
                 {Scenario::LoginFromStore, false, {}, {kStoreSignsIn}, "4,7", false, false},
             });
}

// clang-format on

}  // namespace
