// Waiting for a datagram on a socket, shared by the messaging units (not exported).
#pragma once

#include <poll.h>

#include <cerrno>

namespace quorvel {
namespace utilities {

// poll rather than select: a descriptor numbered past FD_SETSIZE must not overflow an fd_set.
// The result is select's: 1 when readable, 0 on a time-out, -1 on failure (errno set). A
// negative `timeout_ms` waits without a limit.
inline int WaitReadable(int fd, int timeout_ms) {
    if (fd < 0) {  // poll would skip it, and wait out the time-out or for ever
        errno = EBADF;
        return -1;
    }
    pollfd ready{fd, POLLIN, 0};
    int n = ::poll(&ready, 1, timeout_ms < 0 ? -1 : timeout_ms);
    return n > 0 ? 1 : n;
}

}  // namespace utilities
}  // namespace quorvel
