// qvtool wifi and qvtool host wifi as a person and a script use them: a tour of the air, wrong
// and right keys, a hidden network, the radio and the network manager, with their exit codes.
// Every command is a process of its own, so what one leaves behind is what the next one sees.

#include <gtest/gtest.h>

#include <string>

#include "child_process.h"

namespace {

using qvtest::Contains;
using qvtest::Qvtool;

void SetUpAir() {
    ASSERT_EQ(Qvtool({"host", "wifi", "air", "Home", "--security", "wpa2", "--passphrase",
                      "correct horse", "--signal", "80", "--level", "-45"})
                  .exit_code,
              0);
    ASSERT_EQ(Qvtool({"host", "wifi", "air", "Cafe", "--signal", "40"}).exit_code, 0);
    auto hidden = Qvtool({"host", "wifi", "air", "Attic", "--security", "wpa2", "--passphrase",
                          "battery staple", "--signal", "95", "--hidden"});
    ASSERT_EQ(hidden.exit_code, 0) << hidden.output;
    EXPECT_TRUE(Contains(hidden.output, "Attic")) << hidden.output;
    EXPECT_EQ(Qvtool({"host", "wifi", "behave", "--delay", "200"}).exit_code, 0);
}

TEST(QvtoolWifi, ConnectsWithTheRightKeyAndListsTheConnectionFirst) {
    SetUpAir();
    auto scan = Qvtool({"wifi", "scan"});
    ASSERT_EQ(scan.exit_code, 0) << scan.output;
    EXPECT_LT(scan.output.find("Home"), scan.output.find("Cafe")) << scan.output;
    EXPECT_FALSE(Contains(scan.output, "Attic")) << "hidden until stored";
    EXPECT_TRUE(Contains(scan.output, "▂▄▆█")) << scan.output;

    auto wrong = Qvtool({"wifi", "connect", "Home", "--key", "wrong horse"});
    EXPECT_EQ(wrong.exit_code, 1);
    EXPECT_TRUE(Contains(wrong.output, "Home refused the key")) << wrong.output;
    EXPECT_TRUE(Contains(Qvtool({"wifi", "status"}).output, "refused (no network)"));

    auto right = Qvtool({"wifi", "connect", "Home", "--key", "correct horse"});
    EXPECT_EQ(right.exit_code, 0) << right.output;
    EXPECT_TRUE(Contains(right.output, "connected to Home")) << right.output;

    EXPECT_EQ(Qvtool({"wifi", "connect", "Attic", "--key", "battery staple"}).exit_code, 3);
    auto hidden = Qvtool({"wifi", "connect", "Attic", "--hidden", "--key", "battery staple"});
    EXPECT_EQ(hidden.exit_code, 0) << hidden.output;
    scan = Qvtool({"wifi", "scan"});
    EXPECT_LT(scan.output.find("Attic"), scan.output.find("Home")) << scan.output;
    EXPECT_LT(scan.output.find("stored"), scan.output.find("Cafe")) << scan.output;

    auto stored = Qvtool({"host", "wifi", "stored"});
    EXPECT_TRUE(Contains(stored.output, "Attic")) << stored.output;
    EXPECT_FALSE(Contains(stored.output, "battery")) << "keys are masked";

    // A stored network is selected with its stored key.
    EXPECT_EQ(Qvtool({"wifi", "connect", "Home"}).exit_code, 0);
    auto status = Qvtool({"wifi", "status"});
    EXPECT_TRUE(Contains(status.output, "Home")) << status.output;
    EXPECT_TRUE(Contains(status.output, "allowed")) << status.output;

    EXPECT_EQ(Qvtool({"wifi", "forget", "Attic"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"wifi", "forget", "Attic"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"wifi", "connect", "Cafe", "--security", "3"}).exit_code, 2);
}

TEST(QvtoolWifi, RadioManagerAndForcedOutcomes) {
    SetUpAir();
    EXPECT_EQ(Qvtool({"wifi", "connect", "Home", "--key", "correct horse"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"wifi", "power", "off"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"wifi", "scan"}).exit_code, 4);
    EXPECT_EQ(Qvtool({"wifi", "power", "sideways"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"wifi", "power", "on"}).exit_code, 0);

    EXPECT_EQ(Qvtool({"wifi", "manager", "off"}).exit_code, 0);
    EXPECT_TRUE(Contains(Qvtool({"wifi", "status"}).output, "link             down"));
    EXPECT_EQ(Qvtool({"wifi", "connect", "Home"}).exit_code, 4);
    // Switched on, the device goes back to the last network by itself.
    EXPECT_EQ(Qvtool({"wifi", "manager", "on"}).exit_code, 0);
    auto status = Qvtool({"wifi", "status"});
    EXPECT_TRUE(Contains(status.output, "network          Home")) << status.output;

    EXPECT_EQ(Qvtool({"host", "wifi", "behave", "--outcome", "timeout"}).exit_code, 0);
    auto late = Qvtool({"wifi", "connect", "Cafe"});
    EXPECT_EQ(late.exit_code, 1);
    EXPECT_TRUE(Contains(late.output, "did not answer")) << late.output;
    EXPECT_EQ(Qvtool({"host", "wifi", "behave", "--outcome", "never"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "wifi", "air", "Lab", "--security", "wpa2"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"host", "wifi", "remove", "Nowhere"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"host", "wifi", "clear"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"host", "wifi", "behave", "--outcome", "natural"}).exit_code, 0);
    EXPECT_EQ(Qvtool({"wifi", "connect", "Cafe"}).exit_code, 3) << "nothing in reach now";
}

}  // namespace
