// Sign-in pages for the host's browser.app (platform/host/apps/browser_app.cpp), which follows a
// page one instruction a line.
//
//   /signin?do=A|B|C      the page "A\nB\nC": each "|" of the parameter starts a new line

#include <algorithm>
#include <string>

#include "routes.h"

namespace qvserver {
namespace {

void Install(httplib::Server& server, ServerState&) {
    server.Get("/signin", [](const httplib::Request& req, httplib::Response& res) {
        std::string page = req.get_param_value("do");
        std::replace(page.begin(), page.end(), '|', '\n');
        res.set_content(page + "\n", "text/plain");
    });
}

const bool registered = AddRoutes("signin", Install);

}  // namespace
}  // namespace qvserver
