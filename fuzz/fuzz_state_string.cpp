// Sign-in state strings as an application started with "--auth-state=" finds them on its
// command line: parseState, then the state written back out, which must parse to the same.

#include <cstdlib>
#include <string>

#include "common_utilities/services/bookstore_auth_config.h"
#include "fuzz_support.h"

using quorvel::utilities::BookStoreAuthConfigs;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    BookStoreAuthConfigs machine;
    machine.parseState(std::string(reinterpret_cast<const char*>(data), size));
    const std::string text = machine.stateToString();

    BookStoreAuthConfigs again;
    again.parseState(text);
    QVFUZZ_CHECK(again.stateToString() == text);
    return 0;
}
