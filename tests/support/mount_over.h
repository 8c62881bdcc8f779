// Changing what a path of the sandbox shows, for the length of a scope. Every test case runs as
// root in a mount namespace of its own (see devsandbox), so these mounts are seen by the test's
// process and its children only, and end with the scope or the process at the latest.
#pragma once

#include <string>
#include <vector>

namespace qvtest {

class MountOver {
public:
    // Bind-mounts `source` (a file or a directory) over the existing `target`. Throws
    // std::runtime_error when the mount fails.
    MountOver(const std::string& source, const std::string& target);
    // Covers the directory `target` with a fresh tree that holds what `target` held (each entry
    // bound in) plus the empty directories `extra`: a way to add names to a directory of the
    // host, such as /mnt, without writing to the host.
    MountOver(const std::string& target, const std::vector<std::string>& extra);
    ~MountOver();
    MountOver(const MountOver&) = delete;
    MountOver& operator=(const MountOver&) = delete;

private:
    std::string target_;
    std::string tree_;  // the fresh tree, when there is one
};

}  // namespace qvtest
