// Helpers of the sign-in tests: the device's partner family, credentials, and what the host's
// sign-in applications recorded.
#pragma once

#include <string>
#include <vector>

#include "common_utilities/services/bookstore_auth_config.h"

namespace authtest {

using Auth = quorvel::utilities::BookStoreAuthConfigs;
using Scenario = Auth::AuthScenario;

enum class Family { NoPartner, Gqd, Flufliple, Neither };

constexpr const char* kConfigDir = "/mnt/ext1/system/config/";
constexpr const char* kCloudSession = "/mnt/ext1/system/config/qvcloud.cfg";

// Sets partner, flags and native sign-in as a device of that family has them: no partner;
// partner 15 with flags 0 and 3; partner 16 with flags 2 and 3 and native sign-in; partner 13.
void SetFamily(Family family);
// No credentials, no cloud session, no answers, an empty journal.
void ResetDevice();

std::string ReadKey(const std::string& file, const std::string& key);
void WriteKey(const std::string& file, const std::string& key, const std::string& value);
// Signs in to the store as the device's partner keeps it.
void SignInToStore(const std::string& login = "earlier@example.com");
bool CloudSignedIn();

// The command lines the applications received, in order of start.
std::vector<std::string> CommandLines();
// Waits until `count` applications have recorded their start (or 10 s), then returns their
// command lines.
std::vector<std::string> WaitForCommandLines(size_t count);
// Waits until no sign-in application runs; false after 20 s.
bool WaitForQuiet();

}  // namespace authtest
