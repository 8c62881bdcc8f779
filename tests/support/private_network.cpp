#include "private_network.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace qvtest {
namespace {

void BringLoopbackUp() {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags |= IFF_UP | IFF_RUNNING;
    ok = ok && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    int err = errno;
    ::close(fd);
    if (!ok) throw std::runtime_error(std::string("loopback up: ") + std::strerror(err));
}

}  // namespace

PrivateNetwork::PrivateNetwork(const std::vector<std::string>& names) {
    if (::unshare(CLONE_NEWNET) != 0)
        throw std::runtime_error(std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno));
    BringLoopbackUp();
    const std::string path = "/tmp/qvtest-hosts";
    {
        std::ofstream hosts(path);
        hosts << "127.0.0.1 localhost";
        for (const std::string& name : names) hosts << " " << name;
        hosts << "\n::1 localhost ip6-localhost ip6-loopback\n";
    }
    hosts_ = std::make_unique<MountOver>(path, "/etc/hosts");
}

}  // namespace qvtest
