// The answer of a web server to the clock's HEAD request, "Date" header and all. A server of the
// target's own, on loopback, answers each request with the input and closes.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <thread>

#include "common_utilities/net_time.h"
#include "fuzz_support.h"

namespace {

std::mutex g_mutex;
std::string g_reply;
std::string g_host;

void Serve(int listener) {
    for (;;) {
        int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        char request[1024];
        std::string seen;
        while (seen.find("\r\n\r\n") == std::string::npos) {
            ssize_t n = ::recv(fd, request, sizeof request, 0);
            if (n <= 0) break;
            seen.append(request, static_cast<size_t>(n));
        }
        std::string reply;
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            reply = g_reply;
        }
        ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        ::close(fd);
    }
}

}  // namespace

// The request leaves at the middle of a local second, up to 1.5 s later: a fuzzer can't wait
// for that. The library's wait is the only caller of usleep in the process.
extern "C" int usleep(useconds_t) {
    return 0;
}

void qvfuzz::SetUp() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        Fail("can't listen on loopback");
    g_host = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    std::thread(Serve, fd).detach();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_reply = qvfuzz::Text(data, size);
    }
    int delta = 12345;
    int ok = quorvel::utilities::getHttpTimeDelta(g_host.c_str(), &delta);
    QVFUZZ_CHECK(ok == 0 || ok == 1);
    QVFUZZ_CHECK(ok == 1 || delta == 12345);
    return 0;
}
