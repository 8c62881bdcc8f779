// Network time against test_time_server, inside a network namespace of the test's own where the
// NTP pool and the web hosts resolve to loopback. The server's clock is off by a known amount.

#include "common_utilities/net_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/datetime.h"
#include "private_network.h"
#include "server_process.h"

namespace {

using namespace quorvel::utilities;
namespace datetime = quorvel::system::datetime;
using Clock = std::chrono::steady_clock;

std::vector<std::string> AllNames() {
    std::vector<std::string> names = NetTimeWebHosts();
    names.push_back(kNtpPoolHost);
    names.push_back("example");
    return names;
}

class NetTime : public ::testing::Test {
protected:
    NetTime() : network_(AllNames()) {}

    qvtest::ServerProcess Server(std::vector<std::string> options) {
        options.insert(options.begin(), qvtest::BuildProgram("test_time_server"));
        return qvtest::ServerProcess(options);
    }

    qvtest::PrivateNetwork network_;
};

// What the sntp program makes of the same server, in seconds.
double SntpOffset(const std::string& host) {
    qvtest::ChildResult result = qvtest::RunProgram({"sntp", "-j", host});
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    size_t at = result.output.find("\"offset\":");
    if (at == std::string::npos) return NAN;
    return std::strtod(result.output.c_str() + at + 9, nullptr);
}

TEST_F(NetTime, NtpDeltaMatchesTheTruthAndThePeerProgram) {
    for (double offset : {3600.4, -86400.7, 0.2}) {
        SCOPED_TRACE(offset);
        qvtest::ServerProcess server = Server({"--offset", std::to_string(offset)});
        int delta = 12345;
        ASSERT_EQ(1, getNtpTimeDelta(kNtpPoolHost, &delta));
        EXPECT_LE(std::fabs(delta - offset), 1.0);
        double peer = SntpOffset(kNtpPoolHost);
        EXPECT_EQ(static_cast<int>(peer), delta) << "sntp says " << peer;
        EXPECT_EQ(1, getNtpTimeDelta("127.0.0.1", nullptr));
        int through_all = 0;
        ASSERT_EQ(1, getNetTimeDelta(&through_all));
        EXPECT_EQ(delta, through_all);
    }
}

TEST_F(NetTime, NtpRepliesBreakingARuleAreRefused) {
    for (const char* kind : {"mode", "leap", "version", "originate", "stratum", "delay",
                             "dispersion", "transmit"}) {
        SCOPED_TRACE(kind);
        qvtest::ServerProcess server = Server({"--offset", "50", "--ntp-reply", kind});
        int delta = 777;
        EXPECT_EQ(0, getNtpTimeDelta(kNtpPoolHost, &delta));
        EXPECT_EQ(777, delta);
    }
    EXPECT_EQ(0, getNtpTimeDelta("no-such-host.invalid", nullptr));
    EXPECT_EQ(0, getNtpTimeDelta("::1", nullptr));
}

TEST_F(NetTime, SilentServersEndAfterFiveSeconds) {
    qvtest::ServerProcess server = Server({"--ntp-reply", "silent", "--http-reply", "silent"});
    Clock::time_point start = Clock::now();
    EXPECT_EQ(0, getNtpTimeDelta(kNtpPoolHost, nullptr));
    auto waited = Clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LT(waited, std::chrono::seconds(7));

    // A web server that takes the request and never answers: the far-off value, with success.
    start = Clock::now();
    long time = 0;
    EXPECT_EQ(1, getHttpTime("www.debian.org", &time));
    EXPECT_EQ(0x7FFFFFFF, time);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(8));
}

TEST_F(NetTime, HttpDateWithAndWithoutTheHeader) {
    {
        qvtest::ServerProcess server = Server({"--offset", "-7200", "--http-port", "8080"});
        int delta = 0;
        ASSERT_EQ(1, getHttpTimeDelta("example:8080", &delta));
        EXPECT_LE(std::abs(delta + 7200), 1);
        EXPECT_EQ(1, getHttpTimeDelta("[127.0.0.1]:8080", nullptr));
        EXPECT_EQ(0, getHttpTimeDelta("example", nullptr)) << "port 80 has no server";
        EXPECT_EQ(0, getHttpTime("example:1", nullptr));
    }
    {
        qvtest::ServerProcess server = Server({"--http-reply", "no-date"});
        long time = 5;
        EXPECT_EQ(0, getHttpTime("www.kernel.org", &time));
        EXPECT_EQ(5, time);
    }
    // NTP refused, so the web hosts are asked, in some order, on port 80.
    qvtest::ServerProcess server = Server({"--offset", "900", "--ntp-reply", "stratum"});
    int delta = 0;
    ASSERT_EQ(1, getNetTimeDelta(&delta));
    EXPECT_LE(std::abs(delta - 900), 1);
}

TEST(DateTime, HelpersAndStopwatch) {
    tm leap{};
    leap.tm_year = 2024 - 1900;
    leap.tm_mon = 1;
    leap.tm_mday = 29;
    EXPECT_TRUE(datetime::ValidateDate(leap));
    leap.tm_year = 2023 - 1900;
    EXPECT_FALSE(datetime::ValidateDate(leap));
    tm y2038{};
    y2038.tm_year = 138;
    y2038.tm_mday = 1;
    EXPECT_FALSE(datetime::ValidateDate(y2038));
    y2038.tm_year = 137;
    y2038.tm_mon = 11;
    y2038.tm_mday = 31;
    EXPECT_TRUE(datetime::ValidateDate(y2038));
    y2038.tm_mon = 12;
    EXPECT_FALSE(datetime::ValidateDate(y2038));
    y2038.tm_mon = -1;
    EXPECT_FALSE(datetime::ValidateDate(y2038));

    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("", datetime::GetStringDateTime(std::string()));
    EXPECT_EQ("15/11/94 08:12", datetime::GetStringDateTime(std::string("784887151")));
    tm date{};
    date.tm_year = 105;
    date.tm_mon = 2;
    date.tm_mday = 4;
    date.tm_hour = 5;
    date.tm_min = 6;
    EXPECT_EQ("04/03/05 05:06", datetime::GetStringDateTime(date));
    EXPECT_EQ("1109912760", datetime::GetStringSeconds(&date));

    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    timespec later = datetime::GetTimeoutAbsTime(1999);
    EXPECT_LT(later.tv_nsec, 1000000000);
    double gap = (later.tv_sec - before.tv_sec) + (later.tv_nsec - before.tv_nsec) / 1e9;
    EXPECT_NEAR(1.999, gap, 0.05);
    EXPECT_NEAR(static_cast<double>(datetime::GetMilliSeconds()), before.tv_sec * 1000.0, 3000);

    EXPECT_EQ(0, datetime::Trace::GetTimeTrace());
    EXPECT_EQ(0, datetime::Trace::GetTimeFromLastTrace());
    datetime::Trace::StartTrace();
    usleep(30000);
    EXPECT_GE(datetime::Trace::GetTimeFromLastTrace(), 30);
    EXPECT_LT(datetime::Trace::GetTimeFromLastTrace(), 20);
    datetime::Trace::StopTrace();
    int64_t total = datetime::Trace::GetTimeTrace();
    usleep(20000);
    EXPECT_EQ(total, datetime::Trace::GetTimeTrace()) << "a stopped trace stands still";
}

}  // namespace
