// qvtool auth and host partner/flag/native-auth: what a person trying sign-ins on the host sees,
// and the exit codes scripts rely on.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "child_process.h"

namespace {

using qvtest::ChildResult;
using qvtest::Contains;
using qvtest::Qvtool;

TEST(QvtoolAuth, StartPrintsEveryApplicationAndStep) {
    ASSERT_EQ(Qvtool({"host", "partner", "15"}).output,
              "partner 15, native sign-in off, flags 0=off 1=off 2=off 3=off\n");
    EXPECT_EQ(Qvtool({"host", "flag", "0", "on"}).output, "flag 0 on\n");
    EXPECT_EQ(Qvtool({"host", "flag", "3", "on"}).output, "flag 3 on\n");
    EXPECT_EQ(Qvtool({"host", "flag", "3"}).output, "flag 3 on\n");

    ChildResult run = Qvtool({"auth", "start", "CloudLogin", "--login", "ann@example.com"});
    EXPECT_EQ(run.exit_code, 0) << run.Describe();
    EXPECT_EQ(run.output,
              "login-scenario.app --scenario=CloudLogin\n"
              "  startScenario(CloudLogin) -> ask the user, state 3,6\n"
              "  the user answers ok\n"
              "  Proceed(ask the user, ok) -> nothing more, state 3,1\n"
              "bookstore.app --auth-state=3,1\n"
              "  signed in to the store as ann@example.com "
              "(/mnt/ext1/system/config/gqd_config.cfg)\n"
              "  Proceed(store login, ok) -> done, state 3,4\n"
              "qvcloud_auth.app --auth-state=3,4\n"
              "  signed in to the cloud as ann@example.com\n"
              "  Proceed(cloud sign-in, ok) -> done, state 3,7\n"
              "-- scenario over\n"
              "store    signed in as ann@example.com, with a token\n"
              "cloud    signed in as ann@example.com\n");

    ChildResult state = Qvtool({"auth", "state"});
    EXPECT_EQ(state.output,
              "partner  15\n"
              "file     /mnt/ext1/system/config/gqd_config.cfg\n"
              "keys     user_name, password, session_id\n"
              "store    signed in as ann@example.com, with a token\n"
              "cloud    signed in as ann@example.com\n");

    EXPECT_EQ(Qvtool({"auth", "logout"}).output, "store    signed out\ncloud    signed out\n");

    // Answers change the road: the store's login is cancelled.
    ChildResult cancelled = Qvtool({"auth", "start", "1", "--answer", "login=cancel"});
    EXPECT_TRUE(Contains(cancelled.output,
                         "  the user chose to cancel\n"
                         "  Proceed(store login, cancel) -> done, state 1,7\n"
                         "-- scenario over\n"))
        << cancelled.output;
    EXPECT_FALSE(Contains(cancelled.output, "qvcloud_auth.app"));
}

TEST(QvtoolAuth, BadCommandLinesAndMissingApplications) {
    EXPECT_EQ(Qvtool({"auth", "start", "Elsewhere"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"auth", "start", "5"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"auth", "start", "StartStore", "--answer", "login"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"auth", "start", "StartStore", "--answer", "sideways=ok"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"auth", "start", "StartStore", "--timeout", "0"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "flag", "x", "on"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "flag", "2", "maybe"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "partner", "-4"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "native-auth", "on"}).output,
              "partner 0, native sign-in on, flags 0=off 1=off 2=off 3=off\n");

    ASSERT_EQ(::unlink("/zelgrot/bin/qvcloud_auth.app"), 0);
    ChildResult missing = Qvtool({"auth", "start", "StartStore"});
    EXPECT_EQ(missing.exit_code, 3) << missing.Describe();
    EXPECT_TRUE(Contains(missing.output, "/zelgrot/bin/qvcloud_auth.app is not installed"));

    ASSERT_EQ(::unlink("/zelgrot/lib/libqvcloud_api.so"), 0);
    EXPECT_TRUE(
        Contains(Qvtool({"auth", "state"}).output, "cloud    no cloud library on this device\n"));
}

}  // namespace
