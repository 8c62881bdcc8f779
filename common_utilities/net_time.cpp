// Network time: an SNTP client and the "Date" header of a web server.

#include "common_utilities/net_time.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace quorvel {
namespace utilities {

const char* const kNtpPoolHost = "pool.ntp.org";

const std::vector<std::string>& NetTimeWebHosts() {
    static const std::vector<std::string> hosts = {"www.debian.org", "www.kernel.org",
                                                   "www.wikipedia.org"};
    return hosts;
}

namespace {

constexpr int kSocketLimitSeconds = 5;
constexpr uint16_t kNtpPort = 123;
constexpr size_t kNtpPacket = 48;
constexpr size_t kNtpReceive = 1300;
// Seconds from 1900, where NTP counts from, to 1970.
constexpr uint32_t kNtpEpochOffset = 0x83AA7E80u;
// Leap indicator 0, version 3, mode 3 (client), stratum 0, poll 4, precision -6.
constexpr uint32_t kNtpRequestWord = 0x1B0004FAu;
constexpr uint32_t kOneSixteenSixteen = 0x00010000u;
constexpr double kFractionToMicroseconds = 2.3283064365386963e-4;  // 10^6 / 2^32

constexpr size_t kHttpReceive = 1023;
constexpr size_t kDateWidth = 35;  // "Date: " and "Tue, 15 Nov 1994 08:12:31 GMT"
constexpr long kSilentServerTime = 0x7FFFFFFF;

struct NtpTime {
    uint32_t seconds = 0;
    uint32_t fraction = 0;
};

// Closes its socket on every way out.
class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) ::close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

bool SetLimits(int fd) {
    timeval limit{kSocketLimitSeconds, 0};
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

// The local clock as NTP writes it; the fraction is microseconds * 2^32 / 10^6 in integers.
NtpTime LocalNtpTime() {
    timeval now{};
    gettimeofday(&now, nullptr);
    uint32_t micro = static_cast<uint32_t>(now.tv_usec);
    return {static_cast<uint32_t>(now.tv_sec) + kNtpEpochOffset,
            micro * 4294u + ((micro * 1981u) >> 11)};
}

uint32_t Word(const unsigned char* packet, size_t index) {
    uint32_t value;
    std::memcpy(&value, packet + index * 4, 4);
    return ntohl(value);
}

NtpTime Stamp(const unsigned char* packet, size_t index) {
    return {Word(packet, index), Word(packet, index + 1)};
}

// a - b in microseconds, the fractions subtracted with a borrow from the seconds.
double Difference(NtpTime a, NtpTime b) {
    int64_t seconds = static_cast<int32_t>(a.seconds - b.seconds);
    uint32_t fraction = a.fraction - b.fraction;
    if (a.fraction < b.fraction) seconds -= 1;
    return static_cast<double>(seconds) * 1e6 + fraction * kFractionToMicroseconds;
}

bool WithinOne(uint32_t word) {
    int32_t value = static_cast<int32_t>(word);
    return value >= -static_cast<int32_t>(kOneSixteenSixteen) &&
           value <= static_cast<int32_t>(kOneSixteenSixteen);
}

// The rules a reply has to pass before its time-stamps are believed.
bool AcceptReply(const unsigned char* reply, NtpTime sent) {
    uint32_t head = Word(reply, 0);
    unsigned leap = head >> 30;
    unsigned version = (head >> 27) & 7;
    unsigned mode = (head >> 24) & 7;
    unsigned stratum = (head >> 16) & 0xFF;
    NtpTime originate = Stamp(reply, 6);
    NtpTime transmit = Stamp(reply, 10);
    return mode == 4 && leap != 3 && version >= 3 && originate.seconds == sent.seconds &&
           originate.fraction == sent.fraction && stratum != 0 && WithinOne(Word(reply, 1)) &&
           WithinOne(Word(reply, 2)) && (transmit.seconds != 0 || transmit.fraction != 0);
}

bool ConnectNtp(int fd, const char* host) {
    hostent* entry = ::gethostbyname(host);
    if (!entry || entry->h_length != 4 || !entry->h_addr_list[0]) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kNtpPort);
    std::memcpy(&address.sin_addr, entry->h_addr_list[0], 4);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// "[addr]:port", "[addr]", "name:port" (one colon only); anything else is a name on port 80.
void SplitHost(const std::string& text, std::string* name, std::string* port) {
    *name = text;
    *port = "80";
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos) return;
        *name = text.substr(1, close - 1);
        if (close + 1 < text.size() && text[close + 1] == ':') *port = text.substr(close + 2);
        return;
    }
    size_t colon = text.find(':');
    if (colon != std::string::npos && text.find(':', colon + 1) == std::string::npos) {
        *name = text.substr(0, colon);
        *port = text.substr(colon + 1);
    }
}

int ConnectHttp(const std::string& name, const std::string& port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), port.c_str(), &hints, &found) != 0) return -1;
    int fd = -1;
    for (addrinfo* at = found; at && fd < 0; at = at->ai_next) {
        fd = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
        if (fd < 0) continue;
        // The limits also bound the connect and keep a silent server from holding the caller.
        if (!SetLimits(fd) || ::connect(fd, at->ai_addr, at->ai_addrlen) != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(found);
    return fd;
}

// Sends at the middle of a local second, so that the server's whole second is the best guess.
void WaitForHalfSecond() {
    timeval now{};
    gettimeofday(&now, nullptr);
    long micro = now.tv_usec;
    ::usleep(static_cast<useconds_t>(micro <= 500000 ? 500000 - micro : 1500000 - micro));
}

int ParseDate(const char* reply, long* time) {
    const char* date = std::strstr(reply, "Date: ");
    if (!date || std::strlen(date) < kDateWidth) return 0;
    char text[25] = {};
    std::memcpy(text, date + 11, 24);  // past "Date: " and the weekday
    tm parsed{};
    if (!::strptime(text, "%d %b %Y %T", &parsed)) return 0;
    parsed.tm_isdst = 0;
    time_t value = mktime(&parsed);
    if (time) *time = static_cast<long>(value);
    return 1;
}

// The delta of a "Date" time read as local time.
int DeltaFromHttpTime(long server_time) {
    timeval local{};
    gettimeofday(&local, nullptr);
    time_t now = ::time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    long offset = static_cast<long>(now - mktime(&utc));
    return static_cast<int>(server_time + offset - local.tv_sec);
}

}  // namespace

int getNtpTimeDelta(const char* host, int* delta) {
    if (!host) return 0;
    Socket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket.fd() < 0 || !SetLimits(socket.fd()) || !ConnectNtp(socket.fd(), host)) return 0;

    uint32_t request[kNtpPacket / 4] = {};
    request[0] = htonl(kNtpRequestWord);
    request[1] = htonl(kOneSixteenSixteen);
    request[2] = htonl(kOneSixteenSixteen);
    NtpTime sent = LocalNtpTime();
    request[10] = htonl(sent.seconds);
    request[11] = htonl(sent.fraction);
    if (::send(socket.fd(), request, sizeof request, 0) != static_cast<ssize_t>(sizeof request))
        return 0;

    unsigned char reply[kNtpReceive] = {};
    ssize_t received = ::recv(socket.fd(), reply, sizeof reply, 0);
    NtpTime arrived = LocalNtpTime();
    if (received < static_cast<ssize_t>(kNtpPacket) || !AcceptReply(reply, sent)) return 0;

    NtpTime receive = Stamp(reply, 8);
    NtpTime transmit = Stamp(reply, 10);
    double offset = (Difference(receive, sent) - Difference(arrived, transmit)) / 2;
    if (delta) *delta = static_cast<int>(offset / 1e6);
    return 1;
}

int getHttpTime(const char* host, long* time) {
    if (!host) return 0;
    std::string name;
    std::string port;
    SplitHost(host, &name, &port);
    Socket socket(ConnectHttp(name, port));
    if (socket.fd() < 0) return 0;

    char request[512];
    int length = std::snprintf(request, sizeof request,
                               "HEAD %s/ HTTP/1.%s\r\nHost: %s\r\nUser-Agent: glaipil/1.1.1\r\n"
                               "Pragma: no-cache\r\nCache-Control: no-cache\r\n"
                               "Connection: close\r\n\r\n",
                               "", "1", name.c_str());
    if (length <= 0 || length >= static_cast<int>(sizeof request)) return 0;
    WaitForHalfSecond();
    if (::send(socket.fd(), request, static_cast<size_t>(length), MSG_NOSIGNAL) < 0) return 0;

    char reply[kHttpReceive + 1] = {};
    ssize_t received = ::recv(socket.fd(), reply, kHttpReceive, 0);
    if (received == -1) {
        if (time) *time = kSilentServerTime;
        return 1;
    }
    return ParseDate(reply, time);
}

int getHttpTimeDelta(const char* host, int* delta) {
    long server_time = 0;
    if (!getHttpTime(host, &server_time)) return 0;
    if (delta) *delta = DeltaFromHttpTime(server_time);
    return 1;
}

int getNetTimeDelta(int* delta) {
    if (getNtpTimeDelta(kNtpPoolHost, delta)) return 1;
    std::vector<std::string> hosts = NetTimeWebHosts();
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (size_t i = 1; i < hosts.size(); ++i) {
        size_t j = static_cast<size_t>(std::rand()) % (i + 1);
        if (i != j) std::swap(hosts[i], hosts[j]);
    }
    for (const std::string& host : hosts) {
        long server_time = 0;
        if (!getHttpTime(host.c_str(), &server_time)) continue;
        if (delta) *delta = DeltaFromHttpTime(server_time);
        return 1;
    }
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
