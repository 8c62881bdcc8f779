#include "routes.h"

#include <string>
#include <utility>
#include <vector>

namespace qvserver {
namespace {

std::vector<std::pair<std::string, RouteInstaller>>& Groups() {
    static std::vector<std::pair<std::string, RouteInstaller>> groups;
    return groups;
}

std::vector<Interceptor>& Interceptors() {
    static std::vector<Interceptor> interceptors;
    return interceptors;
}

// The statistics route is how tests look at the counter; it must not move it.
constexpr const char* kStatsPath = "/_stats";

}  // namespace

bool AddInterceptor(Interceptor intercept) {
    Interceptors().push_back(intercept);
    return true;
}

bool AddRoutes(const char* group, RouteInstaller install) {
    Groups().emplace_back(group, install);
    return true;
}

void InstallRoutes(httplib::Server& server, ServerState& state) {
    server.set_pre_routing_handler([&state](const httplib::Request& req, httplib::Response& res) {
        if (req.path != kStatsPath) ++state.requests;
        for (Interceptor intercept : Interceptors()) {
            if (intercept(req, res)) return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    for (const auto& group : Groups())
        group.second(server, state);
}

void OnAnyMethod(httplib::Server& server, const std::string& pattern,
                 const AnyMethodHandler& handler) {
    auto without_body = [handler](const httplib::Request& req, httplib::Response& res) {
        handler(req, req.body, res);
    };
    auto with_body = [handler](const httplib::Request& req, httplib::Response& res,
                               const httplib::ContentReader& read) {
        std::string body;
        read([&body](const char* data, size_t length) {
            body.append(data, length);
            return true;
        });
        handler(req, body, res);
    };
    server.Get(pattern, without_body);
    server.Options(pattern, without_body);
    server.Post(pattern, with_body);
    server.Put(pattern, with_body);
    server.Patch(pattern, with_body);
    server.Delete(pattern, with_body);
}

}  // namespace qvserver
