#include "server_process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace qvtest {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(5);

// The "<listener> <port>" lines ahead of "ready"; false while "ready" has not come.
bool ParseAnnouncement(const std::string& output, std::map<std::string, int>* ports) {
    std::istringstream lines(output);
    std::string line;
    std::map<std::string, int> found;
    while (std::getline(lines, line)) {
        if (line == "ready") {
            *ports = std::move(found);
            return true;
        }
        std::istringstream fields(line);
        std::string name;
        int port = 0;
        if (fields >> name >> port) found[name] = port;
    }
    return false;
}

// Whether the process has ended (a zombie, not yet reaped, counts as ended).
bool HasEnded(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return true;
    size_t name_end = line.rfind(')');
    return name_end == std::string::npos || line.compare(name_end, 3, ") Z") == 0;
}

// A plain HTTP/1.0 GET on a socket of its own, so that what the tests check of the library never
// depends on the library itself. The body, or an empty text when the exchange failed.
std::string FetchBody(int port, const std::string& path) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return {};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
        if (::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
            char buffer[4096];
            ssize_t n;
            while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
                response.append(buffer, static_cast<size_t>(n));
        }
    }
    ::close(fd);
    size_t body = response.find("\r\n\r\n");
    return body == std::string::npos ? std::string() : response.substr(body + 4);
}

std::string Describe(const std::vector<std::string>& argv) {
    std::string text;
    for (const auto& arg : argv)
        text += (text.empty() ? "" : " ") + arg;
    return text;
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& argv,
                             std::chrono::milliseconds startup)
    : child_(ChildProcess::Run(argv)) {
    auto deadline = std::chrono::steady_clock::now() + startup;
    while (!ParseAnnouncement(child_.OutputSoFar(), &ports_)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            child_.Kill(SIGKILL);
            throw std::runtime_error(Describe(argv) + " did not get ready; it printed:\n" +
                                     child_.OutputSoFar());
        }
        if (HasEnded(child_.pid())) {
            throw std::runtime_error(Describe(argv) +
                                     " ended before it was ready: " + child_.Wait().Describe());
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

ServerProcess::~ServerProcess() = default;

int ServerProcess::Port(const std::string& listener) const {
    return ports_.at(listener);
}

std::string ServerProcess::Output() const {
    return child_.OutputSoFar();
}

bool ServerProcess::Running() const {
    return !HasEnded(child_.pid());
}

std::string HttpTestServerProgram() {
#ifdef QV_HOST_HTTP_SERVER
    // A cross build's tests talk to the host's build of the server: a 32-bit one cannot even
    // announce the lengths past 4 GiB that the library must survive.
    return QV_HOST_HTTP_SERVER;
#else
    return BuildProgram("test_http_server");
#endif
}

namespace {

std::vector<std::string> WithProgram(const std::string& program,
                                     const std::vector<std::string>& options) {
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
}

}  // namespace

HttpTestServer::HttpTestServer(const std::vector<std::string>& options)
    : process_(WithProgram(HttpTestServerProgram(), options)) {}

std::string HttpTestServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
}

long HttpTestServer::RequestCount() const {
    std::string body = FetchBody(port(), "/_stats");
    if (body.rfind("requests ", 0) != 0) {
        throw std::runtime_error("the test server did not give its statistics: " + body);
    }
    return std::stol(body.substr(9));
}

std::string HttpTestServer::TlsUrl(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(tls_port()) + path;
}

int ClosedPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

}  // namespace qvtest
