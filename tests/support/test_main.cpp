// Entry point of every test program. Tests write to the device's paths, so they must run inside
// the device sandbox; outside it they refuse, rather than touch the host's own directories.

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "sandbox_check.h"

namespace {

bool OnlyListing(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--gtest_list_tests") return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!OnlyListing(argc, argv) && !qvtest::InsideSandbox()) {
        std::fprintf(stderr,
                     "%s: tests run inside the device sandbox only; use ctest, or "
                     "build/<dir>/bin/devsandbox -- %s\n",
                     argv[0], argv[0]);
        return 2;
    }
    return RUN_ALL_TESTS();
}
