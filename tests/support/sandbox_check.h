// Whether this process runs inside the device sandbox: programs that write to the device's paths
// (tests, fuzz targets) refuse to run outside it rather than touch the host's own directories.
#pragma once

#include <sys/vfs.h>

#include <cstdlib>
#include <cstring>

namespace qvtest {

inline bool InsideSandbox() {
    constexpr long kTmpfsMagic = 0x01021994;
    const char* flag = std::getenv("QV_SANDBOX");
    if (!flag || std::strcmp(flag, "1") != 0) return false;
    for (const char* path : {"/mnt/ext1", "/zelgrot", "/tmp"}) {
        struct statfs fs {};
        if (::statfs(path, &fs) != 0 || fs.f_type != kTmpfsMagic) return false;
    }
    return true;
}

}  // namespace qvtest
