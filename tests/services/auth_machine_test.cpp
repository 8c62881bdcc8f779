// The sign-in machine within one process: its text form, damaged states, the partner table,
// credentials and signing out. The host's applications only record their command lines here,
// so each transition shows alone.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "auth_test_support.h"
#include "common_utilities/services/icloudapi.h"
#include "log_capture.h"
#include "moorglass_host.h"
#include "mount_over.h"
#include "store_apps.h"

namespace {

using namespace authtest;
using qvtest::LogCapture;
using qvtest::PidLine;

class AuthMachine : public ::testing::Test {
protected:
    void SetUp() override {
        ResetDevice();
        storeapps::SetRecordOnly(true);
    }
};

TEST_F(AuthMachine, StateTextAndItsDamage) {
    SetFamily(Family::Gqd);
    Auth auth;
    LogCapture log;
    EXPECT_EQ(auth.startScenario(Scenario::CloudLogin), Auth::ActionAskUser);
    EXPECT_EQ(auth.stateToString(), "3,6");
    EXPECT_TRUE(log.Has(0, PidLine("startScenario called scenario = 3")));

    auth.parseState("2,4");
    EXPECT_EQ(auth.stateToString(), "2,4");
    EXPECT_TRUE(log.Has(0, PidLine("parseState scenario = 2, state = 4")));
    auth.parseState("+1,-0");
    EXPECT_EQ(auth.stateToString(), "1,0");

    const std::string failure = PidLine("Failed to parse BookStoreAuthConfigs state");
    struct Damaged {
        std::string text;
        std::string after;  // from "3,6"
    };
    for (const Damaged& d : std::vector<Damaged>{{"2,x", "2,6"},
                                                 {"", "3,6"},
                                                 {"2", "2,6"},
                                                 {"x,1", "3,6"},
                                                 {" 2,1", "3,6"},
                                                 {"2,1 ", "2,6"},
                                                 {"2,4x", "2,6"},
                                                 {"99999999999,1", "3,6"},
                                                 {"1,-99999999999", "1,6"},
                                                 {",", "3,6"}}) {
        auth.parseState("3,6");
        log.Clear();
        auth.parseState(d.text);
        EXPECT_EQ(auth.stateToString(), d.after) << '"' << d.text << '"';
        EXPECT_EQ(log.Messages(), std::vector<std::string>{failure}) << '"' << d.text << '"';
    }
    EXPECT_TRUE(CommandLines().empty());  // asking the user starts nothing
}

TEST_F(AuthMachine, UnknownScenarioStateAndWrongStep) {
    Auth auth;
    LogCapture log;
    EXPECT_EQ(auth.startScenario(static_cast<Scenario>(9)), Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "9,0");
    auth.parseState("-1,1");
    EXPECT_EQ(auth.Proceed(Auth::StepStoreLogin, Auth::ResultOk), Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "-1,1");

    // An unknown state: logged, nothing changes, the handler's default answer.
    auth.parseState("1,42");
    log.Clear();
    EXPECT_EQ(auth.Proceed(static_cast<Auth::AuthStep>(42), Auth::ResultOk), Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "1,42");
    EXPECT_TRUE(log.Has(0, PidLine("Unhandled state 42")));

    // A wrong step is reported and the machine goes on by its own state: the login was done.
    auth.parseState("1,1");
    log.Clear();
    EXPECT_EQ(auth.Proceed(Auth::StepCloudAuth, Auth::ResultOk), Auth::ActionNone);
    EXPECT_TRUE(log.Has(0, PidLine("Wrong state 4. expected 1")));
    EXPECT_EQ(auth.stateToString(), "1,4");
    EXPECT_EQ(WaitForCommandLines(1),
              std::vector<std::string>{"qvcloud_auth.app --auth-state=1,4"});

    // A result out of range ends the scenario without a "done".
    auth.parseState("2,2");
    EXPECT_EQ(auth.Proceed(Auth::StepStoreRegister, static_cast<Auth::StepResult>(5)),
              Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "2,7");
    EXPECT_TRUE(log.Has(0, PidLine("Wrong step result 5")));
    auth.parseState("4,1");
    log.Clear();
    EXPECT_EQ(auth.Proceed(Auth::StepCloudAuth, static_cast<Auth::StepResult>(-1)),
              Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "4,7");
    // The store's own sign-in doesn't compare steps.
    EXPECT_EQ(log.Messages(),
              (std::vector<std::string>{
                  PidLine("Proceed called scenario = 4, step = 4, result = -1"),
                  PidLine("LoginFromStore handler"), PidLine("Wrong step result -1")}));
}

TEST_F(AuthMachine, EveryHandlerAtTheEndLogsAndGivesItsDefault) {
    using Handler = Auth::FutherAction (Auth::*)(Auth::AuthStep, Auth::StepResult);
    struct Row {
        Handler handler;
        const char* name;
        Auth::FutherAction fallback;
    };
    const std::vector<Row> rows{
        {&Auth::BookstoreFormDesktop, "BookstoreFormDesktop", Auth::ActionExit},
        {&Auth::GqdUmbreitBookstoreFromDesktop, "GqdUmbreitBookstoreFromDesktop", Auth::ActionExit},
        {&Auth::GqdUmbreitBookstoreLoginFromSettings, "GqdUmbreitBookstoreLoginFromSettings",
         Auth::ActionNone},
        {&Auth::GqdUmbreitCloudLogin, "GqdUmbreitCloudLogin", Auth::ActionNone},
        {&Auth::FluflipleFromDesktop, "FluflipleFromDesktop", Auth::ActionNone},
        {&Auth::FluflipleLoginFromSettings, "FluflipleLoginFromSettings", Auth::ActionNone},
        {&Auth::FluflipleCloudLogin, "FluflipleCloudLogin", Auth::ActionNone},
        {&Auth::LoginFromStore, "LoginFromStore", Auth::ActionExit},
    };
    for (const Row& row : rows) {
        Auth auth;
        auth.parseState("1,7");
        LogCapture log;
        EXPECT_EQ((auth.*row.handler)(Auth::StepFinished, Auth::ResultOk), row.fallback)
            << row.name;
        EXPECT_EQ(auth.stateToString(), "1,7");
        EXPECT_TRUE(log.Has(0, PidLine(std::string(row.name) + " handler"))) << row.name;
        EXPECT_TRUE(log.Has(0, PidLine("Unhandled state 7"))) << row.name;
    }
    EXPECT_TRUE(CommandLines().empty());
}

TEST_F(AuthMachine, PartnerOfNoFamilyAndTheStoresOwnSignIn) {
    SetFamily(Family::Neither);
    Auth auth;
    EXPECT_EQ(auth.startScenario(Scenario::StoreLoginFromSettings), Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "1,7");
    EXPECT_EQ(WaitForCommandLines(1), std::vector<std::string>{"bookstore.app --auth-state=1,7"});
    // Later reports find no handler.
    auth.parseState("1,1");
    EXPECT_EQ(auth.Proceed(Auth::StepStoreLogin, Auth::ResultOk), Auth::ActionNone);
    EXPECT_EQ(auth.stateToString(), "1,1");

    // The store signs in by itself only with flags 0 and 3, at the start and later alike.
    EXPECT_EQ(auth.startScenario(Scenario::LoginFromStore), Auth::ActionExit);
    EXPECT_EQ(auth.stateToString(), "4,7");
    auth.parseState("4,1");
    EXPECT_EQ(auth.Proceed(Auth::StepStoreLogin, Auth::ResultOk), Auth::ActionExit);
    EXPECT_EQ(auth.stateToString(), "4,7");
    SetFamily(Family::Gqd);
    EXPECT_EQ(auth.startScenario(Scenario::LoginFromStore), Auth::ActionExit);
    EXPECT_EQ(auth.stateToString(), "4,1");
    EXPECT_EQ(CommandLines().size(), 1u);
}

TEST_F(AuthMachine, ScenarioStarterCommandLines) {
    LogCapture log;
    Auth::runScenarioStarter(Scenario::CloudLogin);
    WaitForCommandLines(1);
    Auth::runBookStoreLogin(false);
    WaitForCommandLines(2);
    Auth::runScenarioStarter(Scenario::LoginFromStore);  // no command line form
    EXPECT_EQ(WaitForCommandLines(3),
              (std::vector<std::string>{"login-scenario.app --scenario=CloudLogin",
                                        "login-scenario.app --scenario=StoreLoginFromSettings",
                                        "login-scenario.app"}));

    // Registering in the store logs its twin's line.
    Auth auth;
    auth.parseState("2,2");
    log.Clear();
    auth.runStoreInRegisterMode();
    EXPECT_EQ(log.Messages(), std::vector<std::string>{PidLine("runStoreInLoginMode")});
    EXPECT_EQ(WaitForCommandLines(4).back(), "bookstore.app --auth-state=2,2");
    ASSERT_TRUE(WaitForQuiet());
}

TEST_F(AuthMachine, WhereEachPartnerKeepsItsCredentials) {
    struct Row {
        int partner;
        bool native;
        std::string file, login, password, token;
    };
    const std::string global = "/mnt/ext1/system/config/global.cfg";
    for (const Row& row : std::vector<Row>{
             {0, false, global, "tarvey_login", "tarvey_pass", ""},
             {13, false, global, "tarvey_login", "tarvey_pass", ""},
             {14, false, "/mnt/ext1/system/config/umbreit_config.cfg", "user_name", "password",
              "session_id"},
             {15, false, "/mnt/ext1/system/config/gqd_config.cfg", "user_name", "password",
              "session_id"},
             {77, false, global, "tarvey_login", "tarvey_pass", ""},  // unknown: partner 0's
             {15, true, "/mnt/ext1/system/config/partner_store.cfg", "username", "password",
              "access_token"},
             {0, true, "/mnt/ext1/system/config/partner_store.cfg", "username", "password",
              "access_token"},
         }) {
        qvhost_set_partner(row.partner);
        qvhost_set_native_auth(row.native);
        auto info = Auth::getCurrentPartnerStoreInfo();
        EXPECT_EQ(info.config_filename, row.file) << row.partner;
        EXPECT_EQ(Auth::GetConfigFilename(), row.file);
        EXPECT_EQ(Auth::GetLoginKey(), row.login);
        EXPECT_EQ(Auth::GetPasswordKey(), row.password);
        EXPECT_EQ(Auth::GetTokenKey(), row.token);
    }
}

TEST_F(AuthMachine, SignedInMeansALoginInThePartnersFile) {
    SetFamily(Family::Gqd);
    const std::string file = "/mnt/ext1/system/config/gqd_config.cfg";
    LogCapture log;
    EXPECT_FALSE(Auth::isLoggedIn());
    EXPECT_NE(::access(file.c_str(), F_OK), 0) << "asking must not make the file";
    EXPECT_TRUE(log.Has(0, PidLine("BookStoreAuthConfigs::GetConfigFilename is " + file)));

    WriteKey(file, "password", "only a password");
    EXPECT_FALSE(Auth::isLoggedIn());
    WriteKey(file, "user_name", "someone");
    log.Clear();
    EXPECT_TRUE(Auth::isLoggedIn());
    EXPECT_TRUE(log.Has(0, PidLine("GetLoginKey is someone")));
    // Another partner's login is not this device's.
    WriteKey("/mnt/ext1/system/config/global.cfg", "tarvey_login", "other");
    qvhost_set_partner(14);
    EXPECT_FALSE(Auth::isLoggedIn());
}

// Stands in for killall: records its arguments instead of killing the browsers of every sandbox
// on this machine.
class KillallRecorder {
public:
    KillallRecorder() {
        std::ofstream(script_) << "#!/bin/sh\necho \"$@\" >> " << record_ << "\n";
        ::chmod(script_.c_str(), 0755);
        mount_ = std::make_unique<qvtest::MountOver>(script_, "/usr/bin/killall");
    }
    std::string Calls() const {
        std::ifstream in(record_);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::string script_ = "/tmp/killall-recorder";
    std::string record_ = "/tmp/killall-calls";
    std::unique_ptr<qvtest::MountOver> mount_;
};

TEST_F(AuthMachine, LogOutClearsEveryPartnersKeys) {
    const std::string dir = kConfigDir;
    for (const char* file :
         {"global.cfg", "umbreit_config.cfg", "gqd_config.cfg", "partner_store.cfg"}) {
        for (const char* key :
             {"tarvey_login", "tarvey_pass", "user_name", "password", "session_id", "username",
              "access_token", "libronet_user_id", "language"}) {
            WriteKey(dir + file, key, "v");
        }
    }
    WriteKey(kCloudSession, "param.0", "reader");
    ASSERT_EQ(ReadKey(dir + "gqd_config.cfg", "user_name"), "v");
    qvhost_set_partner(13);
    {
        std::unique_ptr<quorvel::utilities::ICloudApi> cloud(quorvel::utilities::createCloudApi());
        ASSERT_EQ(cloud->startAutoAuth(true), 0);
    }
    KillallRecorder killall;
    LogCapture log;
    Auth::logOut();
    EXPECT_TRUE(log.Has(0, PidLine(">>>   LogOut   <<<")));

    auto gone = [&](const char* file, const char* key) { return ReadKey(dir + file, key).empty(); };
    EXPECT_TRUE(gone("global.cfg", "tarvey_login") && gone("global.cfg", "tarvey_pass"));
    EXPECT_TRUE(gone("global.cfg", "libronet_user_id"));  // partner 13's own
    EXPECT_FALSE(gone("global.cfg", "language"));
    for (const char* file : {"umbreit_config.cfg", "gqd_config.cfg"}) {
        EXPECT_TRUE(gone(file, "user_name") && gone(file, "password") && gone(file, "session_id"))
            << file;
        EXPECT_FALSE(gone(file, "libronet_user_id")) << file;
    }
    // The native sign-in's file is not in the table: only the device's own partner clears it.
    EXPECT_FALSE(gone("partner_store.cfg", "username"));
    EXPECT_FALSE(CloudSignedIn());
    EXPECT_EQ(killall.Calls(), "");

    // A native partner: the browser goes; the native sign-in's file is the native application's
    // own, and signing out leaves it.
    qvhost_set_partner(16);
    qvhost_set_native_auth(1);
    WriteKey(dir + "global.cfg", "libronet_user_id", "v");
    Auth::logOut();
    EXPECT_FALSE(gone("partner_store.cfg", "username"));
    EXPECT_FALSE(gone("global.cfg", "libronet_user_id"));
    EXPECT_EQ(killall.Calls(), "-9 browser.app\n");
}

TEST_F(AuthMachine, LogOutWithoutFilesOrCloudLibrary) {
    // A device without the cloud library signs out of the store all the same.
    const std::string library = "/zelgrot/lib/libqvcloud_api.so";
    const std::string aside = "/zelgrot/lib/aside.so";
    ASSERT_EQ(::rename(library.c_str(), aside.c_str()), 0);
    WriteKey(std::string(kConfigDir) + "global.cfg", "tarvey_login", "v");
    LogCapture log;
    Auth::logOut();
    EXPECT_EQ(ReadKey(std::string(kConfigDir) + "global.cfg", "tarvey_login"), "");
    EXPECT_TRUE(log.HasFragment(1, "Failed to dlopen libqvcloud_api"));
    ASSERT_EQ(::rename(aside.c_str(), library.c_str()), 0);

    // A cloud that doesn't register the store's account keeps its own session.
    WriteKey(kCloudSession, "param.0", "reader");
    WriteKey(kCloudSession, "auto_registration", "0");
    {
        std::unique_ptr<quorvel::utilities::ICloudApi> cloud(quorvel::utilities::createCloudApi());
        ASSERT_EQ(cloud->startAutoAuth(true), 0);
    }
    ::unlink((std::string(kConfigDir) + "global.cfg").c_str());
    Auth::logOut();
    EXPECT_TRUE(CloudSignedIn());
    for (const char* file : {"global.cfg", "umbreit_config.cfg", "gqd_config.cfg"}) {
        EXPECT_NE(::access((std::string(kConfigDir) + file).c_str(), F_OK), 0)
            << file << " was made by signing out";
    }
}

}  // namespace
