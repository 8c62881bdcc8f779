// test_http_server: the loopback HTTP and HTTPS server of the tests, benchmarks and demo.
//
//   test_http_server [--cert-out FILE]
//
// Listens on two ephemeral ports of 127.0.0.1, plain HTTP and HTTPS with a self-signed
// certificate made at start, and prints one line per listener and then "ready":
//     http 40123
//     https 40124
//     ready
// It serves the routes of routes_*.cpp until SIGTERM or SIGINT. --cert-out writes the
// certificate (PEM) to FILE, for clients that are to trust it.

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "routes.h"
#include "self_signed.h"

namespace {

constexpr const char* kHost = "127.0.0.1";

// Benchmarks send thousands of requests over one connection; the library default would close it
// after five.
void Configure(httplib::Server& server, qvserver::ServerState& state) {
    server.set_keep_alive_max_count(1000000);
    server.set_keep_alive_timeout(30);
    server.set_tcp_nodelay(true);
    qvserver::InstallRoutes(server, state);
}

int Bind(httplib::Server& server, const char* what) {
    int port = server.bind_to_any_port(kHost);
    if (port <= 0) throw std::runtime_error(std::string("can't bind the ") + what + " listener");
    return port;
}

std::string CertOutPath(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--cert-out") == 0 && i + 1 < argc) return argv[i + 1];
        throw std::runtime_error(std::string("unknown argument ") + argv[i] +
                                 " (usage: test_http_server [--cert-out FILE])");
    }
    return {};
}

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

int Serve(int argc, char** argv) {
    std::string cert_out = CertOutPath(argc, argv);
    // Blocked before any thread starts, so that only sigwait below receives them.
    sigset_t stop = StopSignals();
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    qvserver::ServerState state;
    qvserver::SelfSigned tls = qvserver::MakeSelfSigned();
    if (!cert_out.empty()) std::ofstream(cert_out) << qvserver::CertificatePem(tls.cert.get());

    httplib::Server plain;
    httplib::SSLServer secure(tls.cert.get(), tls.key.get());
    if (!secure.is_valid()) throw std::runtime_error("the TLS listener can't be set up");
    Configure(plain, state);
    Configure(secure, state);
    int plain_port = Bind(plain, "plain");
    int secure_port = Bind(secure, "TLS");

    std::thread plain_thread([&plain] { plain.listen_after_bind(); });
    std::thread secure_thread([&secure] { secure.listen_after_bind(); });
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
