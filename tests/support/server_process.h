// Server programs of the tests, run as child processes for the length of a scope.
//
// A server program prints one line "<listener> <port>" for each port it listens on, then
// "ready", and serves until it is killed. Servers are separate programs rather than threads of
// the test: a test process with live threads must not fork (see child_process.h), and the tests
// fork to run the tool and other processes of the device.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "child_process.h"

namespace qvtest {

class ServerProcess {
public:
    // Starts `argv` and waits for "ready"; throws std::runtime_error, with what the program
    // printed, when it ends or does not get ready in time.
    explicit ServerProcess(const std::vector<std::string>& argv,
                           std::chrono::milliseconds startup = std::chrono::seconds(30));
    ~ServerProcess();  // stops the program and reaps it
    ServerProcess(ServerProcess&&) = default;
    ServerProcess& operator=(ServerProcess&&) = default;

    // The port of a listener; throws std::out_of_range for a name the program did not print.
    int Port(const std::string& listener) const;
    // Everything the program printed so far (its log, for failure messages).
    std::string Output() const;
    // Whether the program still runs: a test whose transfers fail all at once asks this first,
    // so that a server that died is told apart from a client that failed.
    bool Running() const;

private:
    ChildProcess child_;
    std::map<std::string, int> ports_;
};

// The loopback HTTP server of the tests (tests/support/http_server): a plain and a TLS listener
// on 127.0.0.1 with a certificate no client trusts.
class HttpTestServer {
public:
    // `options` go to the program as they stand (see tests/support/http_server/main.cpp).
    explicit HttpTestServer(const std::vector<std::string>& options = {});

    int port() const { return process_.Port("http"); }
    int tls_port() const { return process_.Port("https"); }
    // "http://127.0.0.1:<port>" followed by `path`.
    std::string Url(const std::string& path = "/") const;
    // "https://127.0.0.1:<tls port>" followed by `path`.
    std::string TlsUrl(const std::string& path = "/") const;
    // How many requests reached a route so far (read from the server).
    long RequestCount() const;
    std::string Output() const { return process_.Output(); }
    bool Running() const { return process_.Running(); }

private:
    ServerProcess process_;
};

// The program of this build that HttpTestServer runs.
std::string HttpTestServerProgram();

// A loopback port nobody listens on: a server "that is not there".
int ClosedPort();

}  // namespace qvtest
