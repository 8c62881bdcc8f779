#include "mount_over.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace qvtest {
namespace {

namespace fs = std::filesystem;

void Bind(const std::string& source, const std::string& target) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        throw std::runtime_error("can't bind " + source + " over " + target + ": " +
                                 std::strerror(errno));
    }
}

// A tmpfs of its own under /tmp (the sandbox's), so that nothing of the host is written.
std::string FreshTree(const std::string& target) {
    static int count = 0;
    std::string tree = "/tmp/.mount-over-" + std::to_string(++count);
    fs::create_directories(tree);
    if (::mount("mount-over", tree.c_str(), "tmpfs", 0, nullptr) != 0) {
        throw std::runtime_error("can't make a tree for " + target + ": " + std::strerror(errno));
    }
    return tree;
}

}  // namespace

MountOver::MountOver(const std::string& source, const std::string& target) : target_(target) {
    Bind(source, target);
}

MountOver::MountOver(const std::string& target, const std::vector<std::string>& extra)
    : target_(target), tree_(FreshTree(target)) {
    for (const auto& entry : fs::directory_iterator(target)) {
        const std::string copy = tree_ + "/" + entry.path().filename().string();
        if (entry.is_directory()) {
            fs::create_directory(copy);
        } else {
            std::ofstream placeholder(copy);  // a mount point for the file
        }
        Bind(entry.path(), copy);
    }
    for (const auto& name : extra)
        fs::create_directories(tree_ + "/" + name);
    Bind(tree_, target);
}

MountOver::~MountOver() {
    ::umount2(target_.c_str(), MNT_DETACH);
    if (!tree_.empty()) ::umount2(tree_.c_str(), MNT_DETACH);
}

}  // namespace qvtest
