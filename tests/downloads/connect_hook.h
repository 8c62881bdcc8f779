// The test program's own connect(): it counts the connection attempts to a loopback port and can
// run a hook just ahead of one of them, then hands on to the C library's. It lets a test make a
// server appear between two attempts of the library, at the moment that matters.
#pragma once

#include <functional>

namespace qvtest {

// Counts from now on the attempts to 127.0.0.1:`port`; `hook` runs once, on the thread that
// connects, ahead of attempt number `nth` (counted from 1).
void HookConnect(int port, int nth, std::function<void()> hook);
// The attempts counted since HookConnect.
int ConnectAttempts();

}  // namespace qvtest
