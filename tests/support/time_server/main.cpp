// test_time_server: the network's clock for the tests, off from the local one by a known amount.
//
//   test_time_server [--offset SECONDS] [--ntp-port P] [--http-port P]
//                    [--ntp-reply KIND] [--http-reply date|no-date|silent]
//
// Answers SNTP requests on UDP 127.0.0.1:P (default 123) and HEAD requests on TCP 127.0.0.1:P
// (default 80) with the local clock plus SECONDS (a decimal, may be negative). It prints
// "ntp P", "http P" and "ready", then serves on one thread until SIGTERM or SIGINT.
//
// --ntp-reply breaks one rule a client must check, to see the reply refused:
//   good (default), mode (mode 3), leap (leap indicator 3), version (version 2), originate
//   (not the request's time-stamp), stratum (0, a kiss of death), delay (root delay 1.5 s),
//   dispersion (root dispersion -1.5 s), transmit (transmit time-stamp 0), silent (no reply).
// --http-reply: "date" answers with a Date header, "no-date" without, "silent" accepts the
// connection and never answers.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kNtpEpochOffset = 0x83AA7E80u;
volatile sig_atomic_t g_stop = 0;

struct Options {
    double offset = 0;
    int ntp_port = 123;
    int http_port = 80;
    std::string ntp_reply = "good";
    std::string http_reply = "date";
};

Options Parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        if (i + 1 >= argc) throw std::runtime_error("no value for " + name);
        std::string value = argv[++i];
        if (name == "--offset") options.offset = std::stod(value);
        else if (name == "--ntp-port") options.ntp_port = std::stoi(value);
        else if (name == "--http-port") options.http_port = std::stoi(value);
        else if (name == "--ntp-reply") options.ntp_reply = value;
        else if (name == "--http-reply") options.http_reply = value;
        else throw std::runtime_error("unknown argument " + name);
    }
    return options;
}

// The server's clock: the local one moved by the offset, in microseconds since 1970.
int64_t ServerMicros(double offset) {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec +
           static_cast<int64_t>(std::llround(offset * 1e6));
}

void PutWord(unsigned char* packet, size_t index, uint32_t value) {
    value = htonl(value);
    std::memcpy(packet + index * 4, &value, 4);
}

void PutStamp(unsigned char* packet, size_t index, int64_t micros) {
    int64_t seconds = micros / 1000000;
    int64_t rest = micros % 1000000;
    PutWord(packet, index, static_cast<uint32_t>(seconds) + kNtpEpochOffset);
    PutWord(packet, index + 1, static_cast<uint32_t>((static_cast<uint64_t>(rest) << 32) / 1000000));
}

int Bind(int type, int port) {
    int fd = ::socket(AF_INET, type, 0);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("can't bind port " + std::to_string(port) + ": " + std::strerror(errno));
    if (type == SOCK_STREAM) ::listen(fd, 64);
    return fd;
}

int BoundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void AnswerNtp(int fd, const Options& options) {
    unsigned char request[512];
    sockaddr_in peer{};
    socklen_t peer_length = sizeof peer;
    ssize_t n = ::recvfrom(fd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&peer),
                           &peer_length);
    if (n < 48 || options.ntp_reply == "silent") return;
    int64_t received = ServerMicros(options.offset);
    const std::string& kind = options.ntp_reply;
    unsigned char reply[48] = {};
    unsigned leap = kind == "leap" ? 3 : 0;
    unsigned version = kind == "version" ? 2 : 4;
    unsigned mode = kind == "mode" ? 3 : 4;
    unsigned stratum = kind == "stratum" ? 0 : 2;
    PutWord(reply, 0, leap << 30 | version << 27 | mode << 24 | stratum << 16 | 4u << 8 | 0xECu);
    PutWord(reply, 1, kind == "delay" ? 0x00018000u : 0x00000100u);
    PutWord(reply, 2, kind == "dispersion" ? static_cast<uint32_t>(-0x18000) : 0x00000200u);
    PutWord(reply, 3, 0x7F000001u);  // reference id
    PutStamp(reply, 4, received - 1000000);
    std::memcpy(reply + 24, request + 40, 8);  // originate: the client's transmit time-stamp
    if (kind == "originate") reply[31] ^= 0x01;
    PutStamp(reply, 8, received);
    if (kind != "transmit") PutStamp(reply, 10, ServerMicros(options.offset));
    ::sendto(fd, reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&peer), peer_length);
}

std::string HttpDate(double offset) {
    time_t seconds = static_cast<time_t>(ServerMicros(offset) / 1000000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &utc);
    return text;
}

void AnswerHttp(int listener, const Options& options, std::vector<int>* held) {
    int fd = ::accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    if (options.http_reply == "silent") {
        held->push_back(fd);  // open, unanswered, until the server ends
        return;
    }
    char request[2048];
    ssize_t n = ::recv(fd, request, sizeof request, 0);
    (void)n;
    std::string reply = "HTTP/1.1 200 OK\r\nServer: test_time_server\r\n";
    if (options.http_reply == "date") reply += "Date: " + HttpDate(options.offset) + "\r\n";
    reply += "Content-Length: 0\r\nConnection: close\r\n\r\n";
    ssize_t sent = ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    (void)sent;
    ::close(fd);
}

void Stop(int) {
    g_stop = 1;
}

int Serve(const Options& options) {
    int ntp = Bind(SOCK_DGRAM, options.ntp_port);
    int http = Bind(SOCK_STREAM, options.http_port);
    struct sigaction action {};
    action.sa_handler = Stop;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    std::cout << "ntp " << BoundPort(ntp) << "\nhttp " << BoundPort(http) << "\nready" << std::endl;
    std::vector<int> held;
    while (!g_stop) {
        pollfd fds[2] = {{ntp, POLLIN, 0}, {http, POLLIN, 0}};
        if (::poll(fds, 2, 200) <= 0) continue;
        if (fds[0].revents & POLLIN) AnswerNtp(ntp, options);
        if (fds[1].revents & POLLIN) AnswerHttp(http, options, &held);
    }
    for (int fd : held) ::close(fd);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Serve(Parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "test_time_server: %s\n", e.what());
        return 1;
    }
}
