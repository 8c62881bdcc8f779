// qvtool wifi scan | connect | forget | power | manager | status: the device's Wi-Fi through the
// library's network facade, as the settings application drives it. Connecting and switching the
// network manager run asynchronously on a real event loop, with a spinner while they block.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "link_state.h"
#include "common_utilities/network.h"
#include "event_loop_run.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::system::DetailedNetworkInfo;
using quorvel::system::Network;
using quorvel::system::NetworkInfo;
using quorvel::system::NetworkParam;
using quorvel::system::WifiAsyncWrapper;

std::string SecurityName(int security) {
    switch (security) {
        case NET_SEC_OPEN:
            return "open";
        case NET_SEC_WEP:
            return "WEP";
        case NET_SEC_WPA:
            return "WPA";
        case NET_SEC_WPA2:
            return "WPA2";
        case NET_SEC_EAP:
            return "WPA2-EAP";
        default:
            return std::to_string(security);
    }
}

// Four bars for a quality of 0..100.
std::string Bars(int quality) {
    static const char* const kBars[] = {"▂", "▄", "▆", "█"};
    int lit = quality <= 0 ? 0 : 1 + std::min(quality, 99) / 25;
    std::string text;
    for (int i = 0; i < 4; ++i)
        text += i < lit ? kBars[i] : "·";
    return text;
}

bool RadioOn() {
    return Network::GetInstance().WiFiPower(-2) == 1;
}

void RequireWifi() {
    if (!RadioOn()) throw Failure(kUnavailable, "the Wi-Fi radio is off (qvtool wifi power on)");
    if (!Network::GetInstance().IsNetworkManagerTurnedOn()) {
        throw Failure(kUnavailable, "the network manager is off (qvtool wifi manager on)");
    }
}

std::string StateOf(const NetworkInfo& info, const Network& network) {
    if (info.connected) return "connected";
    if (info.connecting) return "connecting";
    return network.IsConfigured(info) ? "stored" : "";
}

int RunScan(Args& args) {
    std::string order = args.Option("--order").value_or("signal");
    args.Done();
    Network::SortOrder sort = Network::kByOrderValue0;
    if (order == "level") {
        sort = Network::kByOrderValue1;
    } else if (order != "signal") {
        throw Failure(kUsage, "--order is signal or level, not '" + order + "'");
    }
    RequireWifi();
    Network& network = Network::GetInstance();
    std::vector<NetworkInfo> list = network.GetSortedWifiList(sort);
    Table table({"SSID", "SIGNAL", "LEVEL", "CHANNEL", "SECURITY", "STATE"});
    for (const NetworkInfo& info : list) {
        table.AddRow({info.name, Bars(info.order_value_0), std::to_string(info.order_value_1),
                      std::to_string(info.extra_value), SecurityName(info.security),
                      StateOf(info, network)});
    }
    table.Print(std::cout);
    if (list.empty()) std::cerr << "no networks in reach\n";
    return kOk;
}

// ---- Waiting on the loop for one asynchronous operation -------------------------------------

// Draws a spinner on a terminal while the loop waits; one line otherwise.
class Spinner {
public:
    explicit Spinner(std::string label) : label_(std::move(label)), terminal_(::isatty(2) != 0) {
        if (!terminal_) std::cerr << label_ << "...\n";
    }
    ~Spinner() { Clear(); }

    void Start() { Arm(this); }
    void Clear() {
        if (!terminal_ || stopped_) return;
        stopped_ = true;
        ClearTimerEx(&Spinner::Tick, this);
        std::cerr << "\r\033[K" << std::flush;
    }

private:
    static void Arm(Spinner* self) { SetHardTimerEx("", &Spinner::Tick, self, 100); }
    static void Tick(void* context) {
        auto* self = static_cast<Spinner*>(context);
        static const char* const kFrames[] = {"⠋", "⠙", "⠹", "⠸", "⠼", "⠴", "⠦", "⠧", "⠇", "⠏"};
        std::cerr << '\r' << kFrames[self->frame_++ % 10] << ' ' << self->label_ << std::flush;
        Arm(self);
    }

    std::string label_;
    bool terminal_;
    bool stopped_ = false;
    unsigned frame_ = 0;
};

// The result of the first operation that reports, on the loop's thread.
class Outcome : public WifiAsyncWrapper::Cb {
public:
    void HandleWifiResults(WifiAsyncWrapper::CallbackTypes, int result) override {
        result_ = result;
        done_ = true;
        qvhost_stop_event_loop();
    }
    bool done() const { return done_; }
    int result() const { return result_; }

private:
    bool done_ = false;
    int result_ = 0;
};

int IgnoreEvents(int, int, int) {
    return 0;
}

// Runs the loop until `outcome` reports. On an interrupt the callback is cancelled and the loop
// runs on until the platform call ends, so that the shared link state is left settled.
bool WaitFor(Outcome& outcome, const std::string& label) {
    Spinner spinner(label);
    qvhost_set_event_handler(&IgnoreEvents);
    if (::isatty(2)) spinner.Start();
    bool interrupted = RunEventLoop(&IgnoreEvents) && !outcome.done();
    spinner.Clear();
    if (interrupted) {
        Network::GetInstance().CancelCallback(&outcome);
        std::cerr << "interrupted; waiting for the device to finish the attempt\n";
        while (WifiAsyncWrapper::GetInstance().GetStatus() != 0)
            ::usleep(20000);
    }
    return interrupted;
}

int ConnectResult(int result, const std::string& essid) {
    switch (result) {
        case NET_OK:
            std::cout << "connected to " << essid << '\n';
            return kOk;
        case NET_ERR_AUTH:
            throw Failure(kFailed, essid + " refused the key");
        case NET_ERR_NOT_FOUND:
            throw Failure(kNotFound, essid + " is not in reach");
        case NET_ERR_TIMEOUT:
            throw Failure(kFailed, essid + " did not answer in time");
        case NET_ERR_RADIO_OFF:
            throw Failure(kUnavailable, "the Wi-Fi is off");
        default:
            throw Failure(kFailed, "could not connect to " + essid + " (status " +
                                       std::to_string(result) + ")");
    }
}

NetworkInfo Heard(Network& network, const std::string& essid, bool* found) {
    for (const NetworkInfo& info : network.GetWifiList()) {
        if (info.name == essid) {
            *found = true;
            return info;
        }
    }
    *found = false;
    apinfo_s ap{};
    std::snprintf(ap.essid, sizeof ap.essid, "%s", essid.c_str());
    return NetworkInfo(ap, false, 0, false);
}

int RunConnect(Args& args) {
    std::optional<std::string> key = args.Option("--key");
    std::optional<std::string> security = args.Option("--security");
    bool hidden = args.Flag("--hidden");
    std::string essid = args.Next("SSID");
    args.Done();
    if (essid.empty() || essid.size() > 32) throw Failure(kUsage, "a name is 1 to 32 bytes");
    RequireWifi();
    Network& network = Network::GetInstance();
    bool found = false;
    NetworkInfo line = Heard(network, essid, &found);
    if (!found && !hidden) {
        throw Failure(kNotFound, essid + " is not in reach (--hidden for a hidden network)");
    }
    Outcome outcome;
    // A stored network without a new key is selected: its stored key is a derived one already.
    if (found && !key && !security && network.IsConfigured(line)) {
        if (network.SelectAsync(line, &outcome) != 0) throw Failure(kFailed, "could not start");
        if (WaitFor(outcome, "connecting to " + essid)) return kInterrupted;
        return ConnectResult(outcome.result(), essid);
    }
    DetailedNetworkInfo detail = network.GetDetailedInfo(line);
    detail.essid = essid;
    if (hidden) detail.hidden = 1;
    if (key) detail.key = *key;
    if (security) {
        detail.security = static_cast<int>(ParseInteger(*security, "--security"));
    } else if (!found) {
        detail.security = detail.key.empty() ? NET_SEC_OPEN : NET_SEC_WPA2;
    }
    if (detail.security != NET_SEC_OPEN && detail.key.empty() && detail.password.empty()) {
        throw Failure(kUsage, essid + " is " + SecurityName(detail.security) + ": give --key");
    }
    network.SetDetailedInfoToCache(detail);
    int rc = network.AddAndConnectAsync(line, &outcome);
    if (rc != 0) throw Failure(kFailed, "could not start connecting (" + std::to_string(rc) + ")");
    if (WaitFor(outcome, "connecting to " + essid)) return kInterrupted;
    return ConnectResult(outcome.result(), essid);
}

int RunForget(Args& args) {
    std::string essid = args.Next("SSID");
    args.Done();
    bool found = false;
    NetworkInfo line = Heard(Network::GetInstance(), essid, &found);
    if (Network::GetInstance().ForgetNetwork(line) != NET_OK) {
        throw Failure(kNotFound, "no stored network " + essid);
    }
    std::cout << "forgot " << essid << '\n';
    return kOk;
}

bool OnOff(Args& args) {
    std::string word = args.Next("on|off");
    args.Done();
    if (word != "on" && word != "off") throw Failure(kUsage, "on or off, not '" + word + "'");
    return word == "on";
}

int RunPower(Args& args) {
    bool on = OnOff(args);
    // A fresh process has no balance of its own to take back: off is the reset.
    int rc = Network::GetInstance().WiFiPower(on ? 1 : -1);
    if (rc != NET_OK) throw Failure(kFailed, "the radio did not switch (" + std::to_string(rc) + ")");
    std::cout << "radio " << (on ? "on" : "off") << '\n';
    return kOk;
}

Outcome* g_switch = nullptr;

void SwitchDone() {
    g_switch->HandleWifiResults(WifiAsyncWrapper::kNetworkManagerSwitch, NET_OK);
}

int RunManager(Args& args) {
    bool on = OnOff(args);
    Outcome outcome;
    g_switch = &outcome;
    int rc = NetworkCWrapper_SwitchNetworkManagerAsync(on ? 1 : 0, &SwitchDone);
    if (rc != 0) throw Failure(kFailed, "could not start the switch (" + std::to_string(rc) + ")");
    if (WaitFor(outcome, std::string("switching the network manager ") + (on ? "on" : "off"))) {
        return kInterrupted;
    }
    bool now = NetworkCWrapper_IsNetworkManagerTurnedOn() != 0;
    std::cout << "network manager " << (now ? "on" : "off")
              << (on ? "; the device connects to the network it chooses" : "") << '\n';
    return now == on ? kOk : kFailed;
}

int RunStatus(Args& args) {
    args.Done();
    Network& network = Network::GetInstance();
    network.UpdateCurrentConnectionInfo();
    Table table({"WHAT", "STATE"});
    table.AddRow({"radio", RadioOn() ? "on" : "off"});
    table.AddRow({"network manager", network.IsNetworkManagerTurnedOn() ? "on" : "off"});
    table.AddRow({"link", LinkStateName(GetNetState())});
    table.AddRow({"network", network.current_essid().empty() ? "-" : network.current_essid()});
    if (!network.current_essid().empty()) {
        DetailedNetworkInfo current;
        std::snprintf(current.ap.essid, sizeof current.ap.essid, "%s",
                      network.current_essid().c_str());
        NetworkParam param = current.GetConnectedNetParam();
        table.AddRow({"address", param.ip.empty() ? "-" : param.ip + "/" + param.mask});
        table.AddRow({"gateway", param.gateway.empty() ? "-" : param.gateway});
        std::string dns;
        for (const std::string& server : param.dns_list)
            dns += (dns.empty() ? "" : " ") + server;
        table.AddRow({"name servers", dns.empty() ? "-" : dns});
    }
    table.AddRow({"requests", network.IsNetworkConnected() ? "allowed" : "refused (no network)"});
    table.Print(std::cout);
    return kOk;
}

const bool registered_scan = Register(
    {"wifi scan", "the Wi-Fi networks in reach, connected and stored first",
     "usage: qvtool wifi scan [--order signal|level]\n"
     "Scans and lists the networks in reach as the settings application shows them: the\n"
     "connected (or connecting) network first, then stored networks, then the others, each\n"
     "group by signal quality (or by level in dBm). Exit 4 while the radio or the network\n"
     "manager is off.\n",
     RunScan});

const bool registered_connect = Register(
    {"wifi connect", "store a network and connect to it",
     "usage: qvtool wifi connect SSID [--key K] [--security N] [--hidden]\n"
     "Stores SSID with its key and connects, asynchronously, as the settings application does,\n"
     "with a spinner while the device associates. The security comes from the scan (--security\n"
     "0 open, 1 WEP, 2 WPA, 3 WPA2, 4 enterprise). Without --key a stored network is selected\n"
     "with the key stored for it.\n"
     "--hidden connects to a network that does not broadcast its name.\n"
     "Exit 1 when the network refuses the key or doesn't answer, 3 when it is not in reach, 4\n"
     "when the Wi-Fi is off, 130 when interrupted (the attempt is finished first).\n",
     RunConnect});

const bool registered_forget = Register(
    {"wifi forget", "remove a stored network",
     "usage: qvtool wifi forget SSID\n"
     "Removes SSID from the stored networks; the link drops if it was the connected one.\n"
     "Exit 3 when no network of that name is stored.\n",
     RunForget});

const bool registered_power = Register(
    {"wifi power", "switch the Wi-Fi radio on or off",
     "usage: qvtool wifi power on|off\n"
     "Switching off drops the link; scans and connects need the radio on.\n",
     RunPower});

const bool registered_manager = Register(
    {"wifi manager", "switch the network manager on or off",
     "usage: qvtool wifi manager on|off\n"
     "Switches the network manager through the library's C interface, on an event loop. After\n"
     "switching on, the device connects to the network it chooses (the last one, else the\n"
     "strongest stored one).\n",
     RunManager});

const bool registered_status = Register(
    {"wifi status", "radio, network manager, link and the connected network",
     "usage: qvtool wifi status\n"
     "The radio and network manager, the link state, the connected network with its address,\n"
     "gateway and name servers, and whether requests may run.\n",
     RunStatus});

}  // namespace
}  // namespace qvtool
