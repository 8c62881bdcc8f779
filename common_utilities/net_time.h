// How far the local clock is from the network's: by SNTP, and failing that from the "Date"
// header of a web server. Nothing here sets the clock.
//
// Each call blocks for seconds (every socket has 5-second limits, and an HTTP request waits for
// the middle of a local second before it leaves): call them from a worker. All give 1 on success
// and 0 on failure; a null output is allowed.
#pragma once

#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

// The NTP server getNetTimeDelta asks first, and the web servers it falls back on.
QV_EXPORT extern const char* const kNtpPoolHost;
QV_EXPORT const std::vector<std::string>& NetTimeWebHosts();

// The server's time from the "Date" header of a HEAD request to "name", "name:port",
// "[address]" or "[address]:port" (port 80 by default). The value is the GMT time read as local
// time; getHttpTimeDelta corrects for that. A server that accepts the request and never
// answers within the time limit gives 0x7FFFFFFF with success.
QV_EXPORT int getHttpTime(const char* host, long* time);
// Network time minus local time, in seconds, from the server's "Date" header.
QV_EXPORT int getHttpTimeDelta(const char* host, int* delta);
// Network time minus local time, in seconds, by SNTP on UDP port 123.
QV_EXPORT int getNtpTimeDelta(const char* host, int* delta);
// kNtpPoolHost by SNTP, else the web servers in a random order until one answers.
QV_EXPORT int getNetTimeDelta(int* delta);

}  // namespace utilities
}  // namespace quorvel
