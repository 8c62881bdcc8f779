// The time helpers and the stopwatch.

#include "common_utilities/datetime.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>

namespace quorvel {
namespace system {
namespace datetime {
namespace {

constexpr int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
// Years since 1900 from which time_t of 32 bits no longer holds a date.
constexpr int kYear2038 = 138;

}  // namespace

time_t GetSeconds(const tm* time) {
    tm copy = time ? *time : GetCurrentDateTime();
    return mktime(&copy);
}

tm GetCurrentDateTime() {
    time_t now = ::time(nullptr);
    tm result{};
    localtime_r(&now, &result);
    return result;
}

int64_t GetMilliSeconds() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

std::string GetStringDateTime(const tm& time) {
    char text[64];
    std::snprintf(text, sizeof text, "%02u/%02u/%02u %02u:%02u",
                  static_cast<unsigned>(time.tm_mday), static_cast<unsigned>(time.tm_mon + 1),
                  static_cast<unsigned>(time.tm_year % 100), static_cast<unsigned>(time.tm_hour),
                  static_cast<unsigned>(time.tm_min));
    return text;
}

std::string GetStringDateTime(const long& seconds) {
    time_t value = static_cast<time_t>(seconds);
    tm local{};
    localtime_r(&value, &local);
    return GetStringDateTime(local);
}

std::string GetStringDateTime(std::string seconds) {
    if (seconds.empty()) return "";
    long value = std::strtol(seconds.c_str(), nullptr, 10);
    return GetStringDateTime(value);
}

std::string GetStringSeconds(const tm* time) {
    return std::to_string(static_cast<long long>(GetSeconds(time)));
}

bool ValidateDate(const tm& time) {
    // A negative month would index before the table.
    if (time.tm_mon < 0) return false;
    int month = time.tm_mon > 11 ? 11 : time.tm_mon;
    int days = kDaysInMonth[month];
    if (month == 1 && time.tm_year % 4 == 0) days = 29;
    if (time.tm_mday > days) return false;
    if (time.tm_mon >= 12) return false;
    return time.tm_year < kYear2038;
}

timespec GetTimeoutAbsTime(int milliseconds) {
    timespec when{};
    clock_gettime(CLOCK_REALTIME, &when);
    long long nanoseconds = when.tv_nsec + static_cast<long long>(milliseconds % 1000) * 1000000;
    when.tv_sec += milliseconds / 1000 + nanoseconds / 1000000000;
    nanoseconds %= 1000000000;
    if (nanoseconds < 0) {  // a negative wait: borrow a second
        nanoseconds += 1000000000;
        when.tv_sec -= 1;
    }
    when.tv_nsec = static_cast<long>(nanoseconds);
    return when;
}

// ---- Trace ------------------------------------------------------------------------------------

int64_t Trace::start_time_ = 0;
int64_t Trace::stop_trace_time_ = 0;
int64_t Trace::last_trace_time_ = 0;

int64_t Trace::StartTrace() {
    start_time_ = GetMilliSeconds();
    return start_time_;
}

int64_t Trace::StopTrace() {
    if (start_time_) stop_trace_time_ = GetMilliSeconds();
    return stop_trace_time_;
}

int64_t Trace::GetTimeTrace() {
    if (!start_time_) return 0;
    if (stop_trace_time_) return stop_trace_time_ - start_time_;
    last_trace_time_ = GetMilliSeconds();
    return last_trace_time_ - start_time_;
}

int64_t Trace::GetTimeFromLastTrace() {
    if (!start_time_) return 0;
    int64_t now = GetMilliSeconds();
    int64_t since = now - (last_trace_time_ ? last_trace_time_ : start_time_);
    last_trace_time_ = now;
    return since;
}

void Trace::PrintTraceInfo(const std::string& name) {
    long long from_last = GetTimeFromLastTrace();
    long long from_start = GetTimeTrace();
    std::fprintf(stderr, "----%s: \n", name.c_str());
    std::fprintf(stderr, "time from last trace \t - %4.0lld ms\n", from_last);
    std::fprintf(stderr, "time from start trace \t - %4.0lld ms\n", from_start);
}

}  // namespace datetime
}  // namespace system
}  // namespace quorvel
