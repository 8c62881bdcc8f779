// qvtool useragent TYPE HOST: the User-Agent an application of a client type sends to a host.

#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/user_agent_config.h"

namespace qvtool {
namespace {

using quorvel::utilities::UserAgentConfig;

// A type is the middle of a key "useragent_TYPE_..."; text that can't stand there would only
// find nothing.
void CheckType(const std::string& type) {
    if (type.empty() || type.find_first_of("=\n\r") != std::string::npos) {
        throw Failure(kUsage, "a client type is a word such as 'browser', not '" + type + "'");
    }
}

int RunUserAgent(Args& args) {
    bool raw_template = args.Flag("--template");
    std::string webengine = args.Option("--webengine").value_or("");
    std::string type = args.Next("TYPE");
    std::string host = args.Next("HOST");
    args.Done();
    CheckType(type);

    UserAgentConfig config(type, webengine);
    std::string text =
        raw_template ? config.getTemplateForHost(host) : config.userAgentForHost(host);
    if (text.empty()) {
        throw Failure(kNotFound, "no user agent is configured for type '" + type + "' and host '" +
                                     host + "'");
    }
    std::cout << text << '\n';
    return kOk;
}

const bool registered = Register(
    {"useragent", "the User-Agent text a client type sends to a host",
     "usage: qvtool useragent [--webengine VERSION] [--template] TYPE HOST\n"
     "Prints the User-Agent that an application of client type TYPE (browser, store, ...)\n"
     "sends to HOST, as the library composes it: the template of the first host fragment\n"
     "(in sorted order) found in HOST among the lines useragent_TYPE_FRAGMENT=... of\n"
     "/var/run/device.cfg, else that file's useragent_TYPE_default, else the one in\n"
     "/zelgrot/config/device.cfg; its placeholders filled from the device: [fw],\n"
     "[device_name], [resolution], [locale] (from the language in global.cfg) and\n"
     "[webengine_ver].\n"
     "  --webengine VERSION  the value of [webengine_ver] (empty by default)\n"
     "  --template           print the template chosen, placeholders unfilled\n"
     "Exits 3 when nothing is configured for TYPE and HOST.\n",
     RunUserAgent});

}  // namespace
}  // namespace qvtool
