// The routes of the test HTTP server, in groups that register themselves: a routes_<group>.cpp
// file defines an installer and adds it with
//     const bool registered = qvserver::AddRoutes("group", Install);
// Every group is installed on both listeners (plain and TLS). A group that must see requests
// before routing (whatever their path) adds an interceptor. The CMake collects routes_*.cpp,
// so a new behaviour is a new file.
#pragma once

#include <httplib.h>

#include <atomic>

namespace qvserver {

// State shared by the routes of both listeners.
struct ServerState {
    // Requests that reached a route (the statistics route itself excepted).
    std::atomic<long> requests{0};
};

using RouteInstaller = void (*)(httplib::Server& server, ServerState& state);
// Looks at every request before routing; true when it answered the request itself.
using Interceptor = bool (*)(const httplib::Request& req, httplib::Response& res);

bool AddRoutes(const char* group, RouteInstaller install);
bool AddInterceptor(Interceptor intercept);
// Every group's routes, and a pre-routing handler that counts requests and runs the
// interceptors in the order they were added.
void InstallRoutes(httplib::Server& server, ServerState& state);

// A handler of every method the server parses, for routes that accept any of them. The body
// comes whole as `body`, read by the route itself: httplib's own reading refuses form bodies of
// more than 8 KiB.
using AnyMethodHandler = std::function<void(const httplib::Request& req, const std::string& body,
                                            httplib::Response& res)>;
void OnAnyMethod(httplib::Server& server, const std::string& pattern,
                 const AnyMethodHandler& handler);

}  // namespace qvserver
