// The test program's own posix_fallocate and fdatasync: they record the library's calls and can
// fail on request, then hand on to the C library's.
#pragma once

#include <sys/types.h>

#include <vector>

namespace qvtest {

struct FallocateCall {
    off_t offset;
    off_t length;
};

struct FileSystemSpy {
    std::vector<FallocateCall> fallocates;
    int datasyncs = 0;
    // The posix_fallocate call (counted from 1) that fails with `fail_error`; 0: none.
    int fail_call = 0;
    int fail_error = 0;
};

// The spy of this process; Reset clears it.
FileSystemSpy& Spy();
void ResetSpy();

}  // namespace qvtest
