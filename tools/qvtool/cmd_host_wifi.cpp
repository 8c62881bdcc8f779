// qvtool host wifi ...: the world around the host's Wi-Fi service, for demos and trials: the
// access points in reach, how long the service's blocking calls take and what they answer, and
// the networks the service stores.

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "table.h"

namespace qvtool {
namespace {

constexpr int kMostAccessPoints = 256;

struct AccessPoint {
    std::string essid;
    int security = NET_SEC_OPEN;
    std::string passphrase;
    int quality = 50;
    int level = -60;
    int channel = 6;
    bool hidden = false;
};

// The air as it is; nothing for the default air.
std::optional<std::vector<AccessPoint>> LoadAir() {
    std::vector<qvhost_wifi_ap> raw(kMostAccessPoints);
    int count = qvhost_wifi_air(raw.data(), kMostAccessPoints);
    if (count < 0) return std::nullopt;
    std::vector<AccessPoint> air;
    for (int i = 0; i < count && i < kMostAccessPoints; ++i) {
        const qvhost_wifi_ap& ap = raw[static_cast<size_t>(i)];
        air.push_back({ap.essid, ap.security, ap.passphrase, ap.quality, ap.level, ap.channel,
                       ap.hidden != 0});
    }
    return air;
}

void SaveAir(const std::vector<AccessPoint>& air) {
    std::vector<qvhost_wifi_ap> raw;
    for (const AccessPoint& ap : air) {
        raw.push_back({ap.essid.c_str(), ap.security, ap.passphrase.c_str(), ap.quality, ap.level,
                       ap.channel, ap.hidden ? 1 : 0});
    }
    if (qvhost_wifi_set_air(raw.data(), static_cast<int>(raw.size())) != 0) {
        throw Failure(kUsage, "a name is 1 to 32 bytes without tabs or line breaks, and so is "
                              "a passphrase free of them");
    }
}

int ParseSecurity(const std::string& text) {
    static const std::vector<std::string> kNames = {"open", "wep", "wpa", "wpa2", "eap"};
    for (size_t i = 0; i < kNames.size(); ++i)
        if (text == kNames[i]) return static_cast<int>(i);
    return static_cast<int>(ParseInteger(text, "--security"));
}

const char* kOutcomes[] = {"natural", "ok", "no-network", "wrong-key", "timeout"};

void PrintAir() {
    auto air = LoadAir();
    if (!air) {
        std::cout << "air: the default (every stored network in reach, accepting its key)\n";
    } else {
        Table table({"SSID", "SECURITY", "PASSPHRASE", "QUALITY", "LEVEL", "CHANNEL", "HIDDEN"});
        for (const AccessPoint& ap : *air) {
            table.AddRow({ap.essid, std::to_string(ap.security), ap.passphrase,
                          std::to_string(ap.quality), std::to_string(ap.level),
                          std::to_string(ap.channel), ap.hidden ? "yes" : ""});
        }
        table.Print(std::cout);
        if (air->empty()) std::cout << "(no access point in reach)\n";
    }
    int outcome = qvhost_wifi_outcome();
    std::cout << "connects take " << qvhost_wifi_delay() << " ms, outcome "
              << (outcome >= 0 && outcome <= 4 ? kOutcomes[outcome] : "?") << '\n';
}

void AddAccessPoint(Args& args) {
    AccessPoint ap;
    if (auto security = args.Option("--security")) ap.security = ParseSecurity(*security);
    ap.passphrase = args.Option("--passphrase").value_or("");
    if (auto quality = args.Option("--signal")) {
        ap.quality = static_cast<int>(ParseInteger(*quality, "--signal"));
        if (ap.quality < 0 || ap.quality > 100) throw Failure(kUsage, "--signal is 0 to 100");
    }
    if (auto level = args.Option("--level")) ap.level = static_cast<int>(ParseInteger(*level, "--level"));
    if (auto channel = args.Option("--channel")) {
        ap.channel = static_cast<int>(ParseInteger(*channel, "--channel"));
    }
    ap.hidden = args.Flag("--hidden");
    ap.essid = args.Next("SSID");
    args.Done();
    if (!args.WantsHelp() && ap.security != NET_SEC_OPEN && ap.passphrase.empty()) {
        throw Failure(kUsage, "a secured access point needs --passphrase");
    }
    std::vector<AccessPoint> air = LoadAir().value_or(std::vector<AccessPoint>{});
    bool replaced = false;
    for (AccessPoint& old : air) {
        if (old.essid == ap.essid) {
            old = ap;
            replaced = true;
        }
    }
    if (!replaced) air.push_back(ap);
    SaveAir(air);
}

void RemoveAccessPoint(Args& args) {
    std::string essid = args.Next("SSID");
    args.Done();
    auto air = LoadAir();
    if (!air) throw Failure(kNotFound, "the default air has no list to remove " + essid + " from");
    size_t before = air->size();
    air->erase(std::remove_if(air->begin(), air->end(),
                              [&](const AccessPoint& ap) { return ap.essid == essid; }),
               air->end());
    if (air->size() == before) throw Failure(kNotFound, "no access point " + essid);
    SaveAir(*air);
}

void SetBehaviour(Args& args) {
    int delay = qvhost_wifi_delay();
    int outcome = qvhost_wifi_outcome();
    if (auto text = args.Option("--delay")) {
        delay = static_cast<int>(ParseInteger(*text, "--delay"));
        if (delay < 0 || delay > 600000) throw Failure(kUsage, "--delay is 0 to 600000 ms");
    }
    if (auto text = args.Option("--outcome")) {
        outcome = -1;
        for (int i = 0; i < 5; ++i)
            if (*text == kOutcomes[i]) outcome = i;
        if (outcome < 0) {
            throw Failure(kUsage, "--outcome is natural, ok, no-network, wrong-key or timeout");
        }
    }
    args.Done();
    qvhost_wifi_set_behaviour(delay, outcome);
}

int PrintStored(Args& args) {
    bool show = args.Flag("--show-keys");
    args.Done();
    std::string path = "/tmp/qvtool-stored-" + std::to_string(::getpid()) + ".cfg";
    if (GetNetList(path.c_str()) != NET_OK) throw Failure(kFailed, "the service can't list");
    iconfig* cfg = OpenConfig(path.c_str(), 0);
    Table table({"#", "SSID", "SECURITY", "KEY", "HIDDEN", "ADDRESS"});
    for (int n = 0; cfg; ++n) {
        std::string prefix = "wifi." + std::to_string(n) + ".";
        auto text = [&](const char* key) { return std::string(ReadString(cfg, (prefix + key).c_str(), "")); };
        if (text("essid").empty()) break;
        std::string key = text("key");
        std::string address = ReadInt(cfg, (prefix + "network.ipconfig").c_str(), 0)
                                  ? text("network.ip") + "/" + text("network.mask")
                                  : "auto";
        table.AddRow({std::to_string(n), text("essid"), text("security"),
                      show || key.empty() ? key : "********", text("hidden") == "1" ? "yes" : "",
                      address});
    }
    if (cfg) CloseConfigNoSave(cfg);
    ::unlink(path.c_str());
    table.Print(std::cout);
    if (table.rows() == 0) std::cerr << "no stored networks\n";
    return kOk;
}

int RunHostWifi(Args& args) {
    std::string action = args.NextOptional().value_or("show");
    if (action == "stored") return PrintStored(args);
    if (action == "air") {
        AddAccessPoint(args);
    } else if (action == "remove") {
        RemoveAccessPoint(args);
    } else if (action == "clear" || action == "default") {
        args.Done();
        if (action == "clear") {
            SaveAir({});
        } else {
            qvhost_wifi_set_air(nullptr, -1);
        }
    } else if (action == "behave") {
        SetBehaviour(args);
    } else if (action == "show") {
        args.Done();
    } else {
        throw Failure(kUsage, "unknown action '" + action + "' (see qvtool host wifi --help)");
    }
    PrintAir();
    return kOk;
}

const bool registered = Register(
    {"host wifi", "the host's Wi-Fi world: access points in reach, behaviour, stored networks",
     "usage: qvtool host wifi [show]\n"
     "       qvtool host wifi air SSID [--security open|wep|wpa|wpa2|eap|N] [--passphrase P]\n"
     "                           [--signal 0-100] [--level DBM] [--channel N] [--hidden]\n"
     "       qvtool host wifi remove SSID | clear | default\n"
     "       qvtool host wifi behave [--delay MS]\n"
     "                           [--outcome natural|ok|no-network|wrong-key|timeout]\n"
     "       qvtool host wifi stored [--show-keys]\n"
     "The host plays a device among access points, shared by every process of the sandbox.\n"
     "air adds (or replaces) one, with the passphrase it accepts; a hidden one shows in scans\n"
     "only once stored. clear leaves none in reach; default goes back to the start, where every\n"
     "stored network is in reach and accepts its key. behave sets how long connects and\n"
     "switches block and, unless natural, what connects answer. stored lists the networks the\n"
     "service keeps. Every form but stored prints the air and behaviour afterwards.\n",
     RunHostWifi});

}  // namespace
}  // namespace qvtool
