// qvtool host partner | flag | native-auth: the device profile of the host, which decides how
// signing in to the store goes. Kept in the host state directory, so every process of the device
// (sandbox) sees a change at once.

#include <iostream>
#include <optional>
#include <string>

#include "boardprofile.h"
#include "cli.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

constexpr int kShownFlags = 4;  // the flags the sign-in looks at are 0, 2 and 3

bool ParseSwitch(const std::string& word) {
    if (word == "on" || word == "1") return true;
    if (word == "off" || word == "0") return false;
    throw Failure(kUsage, "on or off, not '" + word + "'");
}

void PrintProfile() {
    std::cout << "partner " << GetCustomizedPartner() << ", native sign-in "
              << (IsPartnerSupportNativeAuth() ? "on" : "off") << ", flags";
    for (int flag = 0; flag < kShownFlags; ++flag) {
        std::cout << ' ' << flag << '=' << (getDeviceConfigFlag(flag) ? "on" : "off");
    }
    std::cout << '\n';
}

int RunPartner(Args& args) {
    std::optional<std::string> id = args.NextOptional();
    args.Done();
    if (id) {
        long long value = ParseInteger(*id, "partner id");
        if (value < 0 || value > 0x7fffffff) throw Failure(kUsage, "a partner id is 0 or more");
        qvhost_set_partner(static_cast<int>(value));
    }
    PrintProfile();
    return kOk;
}

int RunFlag(Args& args) {
    long long flag = ParseInteger(args.Next("N"), "flag number");
    std::optional<std::string> value = args.NextOptional();
    args.Done();
    if (flag < 0 || flag > 63) throw Failure(kUsage, "flags are numbered 0 to 63");
    if (value) qvhost_set_device_flag(static_cast<int>(flag), ParseSwitch(*value));
    std::cout << "flag " << flag << ' '
              << (getDeviceConfigFlag(static_cast<int>(flag)) ? "on" : "off") << '\n';
    return kOk;
}

int RunNativeAuth(Args& args) {
    std::optional<std::string> value = args.NextOptional();
    args.Done();
    if (value) qvhost_set_native_auth(ParseSwitch(*value));
    PrintProfile();
    return kOk;
}

const bool registered_partner = Register(
    {"host partner", "the device's partner (host only); prints the profile",
     "usage: qvtool host partner [ID]\n"
     "Sets the partner the device profile reports (0: none) and prints the profile: partner,\n"
     "native sign-in, flags 0 to 3. Partner 13 keeps its store login in global.cfg, 14 in\n"
     "umbreit_config.cfg, 15 in gqd_config.cfg; other partners read partner 0's place.\n",
     RunPartner});

const bool registered_flag = Register(
    {"host flag", "a numbered flag of the device profile (host only)",
     "usage: qvtool host flag N [on|off]\n"
     "Sets or shows flag N of the device profile. Signing in looks at flags 0, 2 and 3: a\n"
     "partner's device with 0 and 3 on signs in to the store, then to the cloud; one with 2\n"
     "and 3 on signs in through the native sign-in application.\n",
     RunFlag});

const bool registered_native =
    Register({"host native-auth", "whether the partner signs in natively (host only)",
              "usage: qvtool host native-auth [on|off]\n"
              "Whether the partner supports native sign-in; its credentials then live in\n"
              "partner_store.cfg. Prints the profile.\n",
              RunNativeAuth});

}  // namespace
}  // namespace qvtool
