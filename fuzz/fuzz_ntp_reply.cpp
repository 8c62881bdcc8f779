// NTP replies as a server on the network sends them. A server of the target's own, on port 123
// of a network namespace of the process's own, answers each request with the input; unless the
// input's last byte says otherwise, it copies the request's time-stamp into the reply as a real
// server does, so that replies get past the first check and the arithmetic behind it is reached.

#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "common_utilities/net_time.h"
#include "fuzz_support.h"
#include "private_network.h"

namespace {

constexpr size_t kOriginate = 24;  // where a reply repeats the request's transmit time-stamp
constexpr size_t kTransmit = 40;

std::mutex g_mutex;
std::string g_reply;
bool g_echo = true;

std::string ReplyTo(const unsigned char* request, ssize_t length) {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::string reply = g_reply;
    if (g_echo && length >= 48 && reply.size() >= kOriginate + 8)
        reply.replace(kOriginate, 8, reinterpret_cast<const char*>(request + kTransmit), 8);
    return reply;
}

void Serve(int fd) {
    for (;;) {
        unsigned char request[512];
        sockaddr_in from{};
        socklen_t from_length = sizeof from;
        ssize_t length = ::recvfrom(fd, request, sizeof request, 0,
                                    reinterpret_cast<sockaddr*>(&from), &from_length);
        if (length < 0) continue;
        std::string reply = ReplyTo(request, length);
        ::sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                 from_length);
    }
}

}  // namespace

void qvfuzz::SetUp() {
    static qvtest::PrivateNetwork network;
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(123);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        Fail("can't serve NTP on 127.0.0.1:123");
    std::thread(Serve, fd).detach();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_echo = input.ConsumeBool();
        g_reply = input.ConsumeRemainingBytesAsString();
    }
    int delta = 12345;
    int ok = quorvel::utilities::getNtpTimeDelta("127.0.0.1", &delta);
    QVFUZZ_CHECK(ok == 0 || ok == 1);
    QVFUZZ_CHECK(ok == 1 || delta == 12345);
    return 0;
}
