// qvtool time: how far the clock is from the network's.

#include <iostream>
#include <string>

#include "cli.h"
#include "common_utilities/net_time.h"

namespace qvtool {
namespace {

using namespace quorvel::utilities;

int RunTime(Args& args) {
    auto ntp = args.Option("--ntp");
    auto http = args.Option("--http");
    args.Done();
    if (ntp && http) throw Failure(kUsage, "choose one of --ntp and --http");
    int delta = 0;
    int found = 0;
    std::string source;
    if (ntp) {
        source = "NTP server " + *ntp;
        found = getNtpTimeDelta(ntp->c_str(), &delta);
    } else if (http) {
        source = "web server " + *http;
        found = getHttpTimeDelta(http->c_str(), &delta);
    } else {
        source = std::string("the network (") + kNtpPoolHost + ", then web servers)";
        found = getNetTimeDelta(&delta);
    }
    if (!found) throw Failure(kUnavailable, source + " gave no time");
    std::cout << "delta " << (delta >= 0 ? "+" : "") << delta << " s  (network time minus this clock, from "
              << source << ")\n";
    return kOk;
}

const bool registered = Register(
    {"time", "the clock's distance to the network's time",
     "usage: qvtool time [--ntp HOST | --http HOST[:PORT]]\n"
     "Prints the network's time minus this clock, in whole seconds. Without an option it asks\n"
     "the NTP pool, then well-known web servers for their Date header; --ntp asks one NTP\n"
     "server, --http one web server. Each try gives up after 5 seconds. The clock is not set.\n"
     "Exit code 4 when no server gave a time.\n",
     RunTime});

}  // namespace
}  // namespace qvtool
