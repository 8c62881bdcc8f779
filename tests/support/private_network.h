// A network of the test's own: a fresh network namespace whose loopback is up, and names of the
// outside world resolved to it. Servers of the test may then take the well-known ports (123, 80)
// that the code under test insists on, and nothing the test sends can leave the machine.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mount_over.h"

namespace qvtest {

class PrivateNetwork {
public:
    // Moves the calling thread (so the test and every child it starts from now on) into a new
    // network namespace and makes `names` resolve to 127.0.0.1 through a hosts file bound over
    // /etc/hosts. Call before any thread starts. Throws std::runtime_error on failure.
    explicit PrivateNetwork(const std::vector<std::string>& names = {});

private:
    std::unique_ptr<MountOver> hosts_;
};

}  // namespace qvtest
