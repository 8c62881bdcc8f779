// qvtool host ...: controls of the host stand-in of the platform, for trying the library on a
// desktop: what a device's own services would decide (here, whether the network is up).

#include <iostream>
#include <memory>
#include <string>

#include "cli.h"
#include "link_state.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace qvtool {
namespace {

void PrintNetwork() {
    std::unique_ptr<char, void (*)(char*)> proxy(get_proxy(),
                                                 [](char* p) { clean_proxy_object(&p); });
    std::cout << "network " << LinkStateName(GetNetState()) << ", proxy "
              << (proxy ? proxy.get() : "none") << '\n';
}

int RunNetwork(Args& args) {
    std::optional<std::string> proxy = args.Option("--proxy");
    std::optional<std::string> state = args.NextOptional();
    args.Done();
    if (state) {
        if (*state == "up") {
            qvhost_set_net_state(NET_STATE_CONNECTED);
        } else if (*state == "down") {
            qvhost_set_net_state(NET_STATE_OFF);
        } else if (*state == "connecting") {
            qvhost_set_net_state(NET_STATE_CONNECTING);
        } else {
            throw Failure(kUsage, "the network is up, down or connecting, not '" + *state + "'");
        }
    }
    if (proxy) qvhost_set_proxy(*proxy == "none" ? nullptr : proxy->c_str());
    PrintNetwork();
    return kOk;
}

const bool registered = Register(
    {"host network", "take the host's network up or down, set its proxy",
     "usage: qvtool host network [up | down | connecting] [--proxy URL | --proxy none]\n"
     "The host platform's network state, shared by every process of the device (sandbox):\n"
     "requests of the library refuse to run unless it is up. Prints the state.\n"
     "  --proxy URL   the proxy the platform hands to requests (\"http://host:port\")\n",
     RunNetwork});

}  // namespace
}  // namespace qvtool
