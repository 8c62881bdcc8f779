// Small time helpers, and a stopwatch for timing code by hand.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace system {
namespace datetime {

// mktime of a copy of `time`; null means now. Local time.
QV_EXPORT time_t GetSeconds(const tm* time = nullptr);
QV_EXPORT tm GetCurrentDateTime();
// The wall clock in milliseconds since the epoch.
QV_EXPORT int64_t GetMilliSeconds();
// "DD/MM/YY hh:mm".
QV_EXPORT std::string GetStringDateTime(const tm& time);
// The same of seconds since the epoch, in local time.
QV_EXPORT std::string GetStringDateTime(const long& seconds);
// The same of a decimal count of seconds; empty for an empty text.
QV_EXPORT std::string GetStringDateTime(std::string seconds);
// mktime in decimal; null means now.
QV_EXPORT std::string GetStringSeconds(const tm* time = nullptr);
// Whether the day exists in its month (29 February in years divisible by 4) and the date lies
// before 2038. Days below 1 and years before 1900 are not looked at; a month below 0 is invalid.
QV_EXPORT bool ValidateDate(const tm& time);
// The real-time clock `milliseconds` from now, for timed waits on that clock.
QV_EXPORT timespec GetTimeoutAbsTime(int milliseconds);

// A stopwatch of one thread: milliseconds since StartTrace, and since the last look.
class QV_EXPORT Trace {
public:
    static int64_t StartTrace();
    static int64_t StopTrace();
    // Running: now minus start (and the last look becomes now); stopped: stop minus start;
    // never started: 0.
    static int64_t GetTimeTrace();
    // Now minus the last look (or the start, before any), and the last look becomes now; 0 when
    // never started.
    static int64_t GetTimeFromLastTrace();
    // Both times on the standard error stream, under `name`.
    static void PrintTraceInfo(const std::string& name);

    static int64_t start_time_;
    static int64_t stop_trace_time_;
    static int64_t last_trace_time_;
};

}  // namespace datetime
}  // namespace system
}  // namespace quorvel
