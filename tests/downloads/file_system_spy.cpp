#include "file_system_spy.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace qvtest {

FileSystemSpy& Spy() {
    static FileSystemSpy spy;
    return spy;
}

void ResetSpy() {
    Spy() = FileSystemSpy();
}

}  // namespace qvtest

// Defined in the program, these come before the C library's in the lookup of every shared object,
// libcommon_utilities.so included.
extern "C" int posix_fallocate(int fd, off_t offset, off_t length) {
    using Real = int (*)(int, off_t, off_t);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "posix_fallocate"));
    qvtest::FileSystemSpy& spy = qvtest::Spy();
    spy.fallocates.push_back({offset, length});
    if (spy.fail_call == static_cast<int>(spy.fallocates.size())) return spy.fail_error;
    return real(fd, offset, length);
}

extern "C" int fdatasync(int fd) {
    using Real = int (*)(int);
    static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "fdatasync"));
    ++qvtest::Spy().datasyncs;
    return real(fd);
}
