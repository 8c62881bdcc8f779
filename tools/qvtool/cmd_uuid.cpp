// qvtool uuid: random UUIDs, as the library makes them for applications.

#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/user_agent_config.h"

namespace qvtool {
namespace {

constexpr long long kMaxCount = 1000000;

int RunUuid(Args& args) {
    std::optional<std::string> count_text = args.Option("--count");
    args.Done();
    long long count = count_text ? ParseInteger(*count_text, "--count") : 1;
    if (count < 1 || count > kMaxCount) {
        throw Failure(kUsage, "--count must be between 1 and " + std::to_string(kMaxCount));
    }
    for (long long i = 0; i < count; ++i) {
        std::string uuid = quorvel::utilities::GenerateUUID();
        if (uuid.empty()) throw Failure(kFailed, "the system gave no random bytes for a UUID");
        std::cout << uuid << '\n';
    }
    return kOk;
}

const bool registered =
    Register({"uuid", "random (version 4) UUIDs",
              "usage: qvtool uuid [--count N]\n"
              "Prints N (default 1) random UUIDs, one per line, in the 36-character form with\n"
              "lower-case hexadecimal digits.\n",
              RunUuid});

}  // namespace
}  // namespace qvtool
