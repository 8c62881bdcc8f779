// The network service of the host platform. A host has no Wi-Fi manager of its own: the link
// state and the proxy are what the host controls set, shared by every process of the sandbox
// through "network.cfg" in the state directory. A fresh device is connected and has no proxy,
// so that requests to loopback servers just work.

#include <cstdlib>
#include <cstring>
#include <string>

#include "moorglass.h"
#include "moorglass_host.h"
#include "state_file_cache.h"

namespace {

// What QueryNetwork reports while connected: the first of the connection bits (Wi-Fi), and the
// bit below the mask that says the network manager runs.
constexpr int kQueryConnected = 0x0100 | 0x0001;
constexpr int kQueryManagerOnly = 0x0001;

qvhost::StateFileCache& NetworkFile() {
    static qvhost::StateFileCache file("network.cfg");
    return file;
}

int CurrentState() {
    int state = NetworkFile().GetInt("state", NET_STATE_CONNECTED);
    if (state < NET_STATE_OFF || state > NET_STATE_CONNECTED) return NET_STATE_OFF;
    return state;
}

}  // namespace

extern "C" {

int QueryNetwork(void) {
    return CurrentState() == NET_STATE_CONNECTED ? kQueryConnected : kQueryManagerOnly;
}

int GetNetState(void) {
    return CurrentState();
}

char* get_proxy(void) {
    std::string proxy = NetworkFile().Get("proxy", "");
    return proxy.empty() ? nullptr : ::strdup(proxy.c_str());
}

void clean_proxy_object(char** proxy) {
    if (!proxy || !*proxy) return;
    std::free(*proxy);
    *proxy = nullptr;
}

void qvhost_set_net_state(int state) {
    NetworkFile().Set("state", std::to_string(state).c_str());
}

void qvhost_set_network_up(int up) {
    qvhost_set_net_state(up ? NET_STATE_CONNECTED : NET_STATE_OFF);
}

void qvhost_set_proxy(const char* proxy) {
    NetworkFile().Set("proxy", proxy && *proxy ? proxy : nullptr);
}

const char* qvhost_network_path(void) {
    thread_local std::string path;
    path = NetworkFile().Path();
    return path.c_str();
}

}  // extern "C"
