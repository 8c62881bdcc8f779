// Entry point of every test program. Tests write to the device's paths, so they must run inside
// the device sandbox; outside it they refuse, rather than touch the host's own directories.

#include <gtest/gtest.h>
#include <sys/vfs.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr long kTmpfsMagic = 0x01021994;

bool InsideSandbox() {
    const char* flag = std::getenv("QV_SANDBOX");
    if (!flag || std::strcmp(flag, "1") != 0) return false;
    for (const char* path : {"/mnt/ext1", "/zelgrot", "/tmp"}) {
        struct statfs fs {};
        if (::statfs(path, &fs) != 0 || fs.f_type != kTmpfsMagic) return false;
    }
    return true;
}

bool OnlyListing(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--gtest_list_tests") return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!OnlyListing(argc, argv) && !InsideSandbox()) {
        std::fprintf(stderr,
                     "%s: tests run inside the device sandbox only; use ctest, or "
                     "build/<dir>/bin/devsandbox -- %s\n",
                     argv[0], argv[0]);
        return 2;
    }
    return RUN_ALL_TESTS();
}
