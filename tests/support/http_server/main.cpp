// test_http_server: the loopback HTTP and HTTPS server of the tests, benchmarks and demo.
//
//   test_http_server [--cert-out FILE] [--cert FILE --key FILE] [--http-port PORT] [--threads N]
//                    [--requests-per-connection N]
//
// Listens on two ephemeral ports of 127.0.0.1, plain HTTP and HTTPS with a self-signed
// certificate made at start, and prints one line per listener and then "ready":
//     http 40123
//     https 40124
//     ready
// It serves the routes of routes_*.cpp until SIGTERM or SIGINT. --cert-out writes the
// certificate (PEM) to FILE, for clients that are to trust it. --cert and --key give the TLS
// listener a certificate and key (PEM files) made elsewhere, say signed by a test CA, instead.
// --http-port puts the plain listener on PORT, for a server that has to appear at a known place.
// --threads N serves up to N connections at once on each listener (httplib's default is 8), for
// clients that open hundreds of connections together. --requests-per-connection N closes a
// connection after its Nth response ("Connection: close"); 1 makes every request pay for a
// connection of its own, for comparisons where one client must not profit from connections an
// earlier run left open (and no idle connection holds one of the N threads meanwhile).

#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "routes.h"
#include "self_signed.h"

namespace {

constexpr const char* kHost = "127.0.0.1";

// The packaged server library listens with a backlog of five, a number fixed when the library
// was built: defining its backlog macro here changes nothing. Hundreds of clients connecting at
// once then overflow the queue, the kernel falls back to SYN cookies and resets the connections
// it could not queue, and clients read "connection reset by peer" before any request reached a
// route. So the listener's socket is noted while it is being made and, once bound, listened on
// again with the system's largest backlog (Linux lets a listening socket change its backlog).
class Listener {
public:
    void Watch(httplib::Server& server) {
        server.set_socket_options([this](socket_t sock) {
            httplib::default_socket_options(sock);
            socket_ = sock;
        });
    }
    void WidenBacklog(const char* what) const {
        if (socket_ < 0 || ::listen(socket_, SOMAXCONN) != 0)
            throw std::runtime_error(std::string("can't widen the backlog of the ") + what +
                                     " listener");
    }

private:
    socket_t socket_ = -1;
};

struct Options {
    std::string cert_out;
    std::string cert;
    std::string key;
    int http_port = 0;  // any
    int threads = 0;    // httplib's default
    // Benchmarks send thousands of requests over one connection; the library default would
    // close it after five.
    int requests_per_connection = 1000000;
};

void Configure(httplib::Server& server, qvserver::ServerState& state, const Options& options) {
    int threads = options.threads;
    if (threads > 0)
        server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    server.set_keep_alive_max_count(static_cast<size_t>(options.requests_per_connection));
    server.set_keep_alive_timeout(30);
    server.set_tcp_nodelay(true);
    qvserver::InstallRoutes(server, state);
}

Options ParseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        if (i + 1 >= argc) throw std::runtime_error("no value for " + name);
        std::string value = argv[++i];
        if (name == "--cert-out") {
            options.cert_out = value;
        } else if (name == "--cert") {
            options.cert = value;
        } else if (name == "--key") {
            options.key = value;
        } else if (name == "--http-port") {
            options.http_port = std::stoi(value);
        } else if (name == "--threads") {
            options.threads = std::stoi(value);
        } else if (name == "--requests-per-connection") {
            options.requests_per_connection = std::stoi(value);
            if (options.requests_per_connection < 1)
                throw std::runtime_error("--requests-per-connection must be at least 1");
        } else {
            throw std::runtime_error("unknown argument " + name +
                                     " (usage: test_http_server [--cert-out FILE] [--cert FILE "
                                     "--key FILE] [--http-port PORT] [--threads N] "
                                     "[--requests-per-connection N])");
        }
    }
    if (options.cert.empty() != options.key.empty())
        throw std::runtime_error("--cert and --key go together");
    return options;
}

int Bind(httplib::Server& server, const char* what, int port = 0) {
    if (port > 0) {
        if (!server.bind_to_port(kHost, port))
            throw std::runtime_error(std::string("can't bind the ") + what + " listener");
        return port;
    }
    port = server.bind_to_any_port(kHost);
    if (port <= 0) throw std::runtime_error(std::string("can't bind the ") + what + " listener");
    return port;
}

std::unique_ptr<httplib::SSLServer> MakeTlsServer(const Options& options) {
    if (!options.cert.empty())
        return std::make_unique<httplib::SSLServer>(options.cert.c_str(), options.key.c_str());
    qvserver::SelfSigned tls = qvserver::MakeSelfSigned();
    if (!options.cert_out.empty())
        std::ofstream(options.cert_out) << qvserver::CertificatePem(tls.cert.get());
    return std::make_unique<httplib::SSLServer>(tls.cert.get(), tls.key.get());
}

// The library's accept loop gives up on the first error it does not expect and closes the
// listener, and the routes still streaming see the server as stopping. A test would then read
// refused connections and cut bodies with no hint why; this says it, and ends the server.
void ListenUntilStopped(httplib::Server& server, const char* what) {
    if (server.listen_after_bind()) return;
    int error = errno;
    std::fprintf(stderr, "test_http_server: the %s listener stopped by itself: %s\n", what,
                 std::strerror(error));
    std::_Exit(3);
}

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

int Serve(int argc, char** argv) {
    Options options = ParseOptions(argc, argv);
    // Blocked before any thread starts, so that only sigwait below receives them.
    sigset_t stop = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    qvserver::ServerState state;
    httplib::Server plain;
    std::unique_ptr<httplib::SSLServer> tls = MakeTlsServer(options);
    httplib::SSLServer& secure = *tls;
    if (!secure.is_valid()) throw std::runtime_error("the TLS listener can't be set up");
    Configure(plain, state, options);
    Configure(secure, state, options);
    Listener plain_listener;
    Listener secure_listener;
    plain_listener.Watch(plain);
    secure_listener.Watch(secure);
    int plain_port = Bind(plain, "plain", options.http_port);
    int secure_port = Bind(secure, "TLS");
    plain_listener.WidenBacklog("plain");
    secure_listener.WidenBacklog("TLS");

    std::thread plain_thread([&plain] { ListenUntilStopped(plain, "plain"); });
    std::thread secure_thread([&secure] { ListenUntilStopped(secure, "TLS"); });
    std::cout << "http " << plain_port << "\nhttps " << secure_port << "\nready" << std::endl;

    int received = 0;
    sigwait(&stop, &received);
    plain.stop();
    secure.stop();
    plain_thread.join();
    secure_thread.join();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Serve(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "test_http_server: %s\n", e.what());
        return 1;
    }
}
