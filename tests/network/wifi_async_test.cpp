// The asynchronous Wi-Fi operations end to end: the test thread runs the host's event loop as an
// application's main thread does, the wrapper's worker makes the blocking calls of the host's
// Wi-Fi service (made slow on purpose), and results, events and the "NetworkTimer" come back on
// the loop.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "common_utilities/config.h"
#include "common_utilities/network.h"
#include "common_utilities/wifi_async_wrapper.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "wifi_test_support.h"

namespace {

using quorvel::system::DetailedNetworkInfo;
using quorvel::system::Network;
using quorvel::system::NetworkInfo;
using quorvel::system::WifiAsyncWrapper;
using Outcome = std::pair<int, int>;  // type, result

// ---- A small scheduler on the loop ----------------------------------------------------------

std::list<std::function<void()>> g_steps;

void RunStep(void* step) {
    (*static_cast<std::function<void()>*>(step))();
}

void After(int ms, std::function<void()> step) {
    g_steps.push_back(std::move(step));
    SetHardTimerEx("", &RunStep, &g_steps.back(), ms);
}

// Calls `check` every 10 ms until it is true, then `then`; the loop stops after `limit_ms`.
void When(std::function<bool()> check, std::function<void()> then) {
    After(10, [check, then] {
        if (check()) {
            then();
        } else {
            When(check, then);
        }
    });
}

std::vector<Outcome> g_events;  // event 212 as the loop's handler saw it
pthread_t g_loop_thread;

int Handler(int type, int par1, int par2) {
    if (type == 212) g_events.emplace_back(par1, par2);
    return 0;
}

// Runs the loop on this thread until a step stops it; fails after `limit_ms`.
void RunLoop(int limit_ms = 10000) {
    g_loop_thread = pthread_self();
    bool timed_out = false;
    After(limit_ms, [&timed_out] {
        timed_out = true;
        qvhost_stop_event_loop();
    });
    qvhost_run_event_loop(&Handler);
    EXPECT_FALSE(timed_out) << "the scenario did not finish";
}

class Recorder : public WifiAsyncWrapper::Cb {
public:
    void HandleWifiResults(WifiAsyncWrapper::CallbackTypes type, int result) override {
        calls.emplace_back(type, result);
        on_loop_thread = on_loop_thread && pthread_equal(pthread_self(), g_loop_thread);
    }

    std::vector<Outcome> calls;
    bool on_loop_thread = true;
};

void SetAir(int delay_ms) {
    const qvhost_wifi_ap air[] = {
        {"Home", NET_SEC_WPA2, "correct horse", 80, -45, 6, 0},
        {"Shop", NET_SEC_WPA2, "shop-pass", 60, -60, 1, 0},
    };
    ASSERT_EQ(qvhost_wifi_set_air(air, 2), 0);
    qvhost_wifi_set_behaviour(delay_ms, QVHOST_WIFI_NATURAL);
}

// The list line of `essid`, with `key` as the edit a settings screen holds.
NetworkInfo Edited(const std::string& essid, const std::string& key) {
    Network& network = Network::GetInstance();
    for (const NetworkInfo& info : network.GetWifiList()) {
        if (info.name != essid) continue;
        DetailedNetworkInfo edit = network.GetDetailedInfo(info);
        edit.key = key;
        network.SetDetailedInfoToCache(edit);
        return info;
    }
    ADD_FAILURE() << essid << " is not listed";
    return qvtest::LineFor("");
}

std::string StoredKey(const std::string& essid) {
    for (const auto& known : Network::GetInstance().GetKnownWifis())
        if (known.essid == essid) return known.key;
    return "(not stored)";
}

TEST(WifiAsync, AddAndConnectReportsOnTheLoopAndTheTimerStops) {
    SetAir(300);
    qvhost_set_network_up(0);
    Network& network = Network::GetInstance();
    WifiAsyncWrapper& wrapper = WifiAsyncWrapper::GetInstance();
    Recorder recorder;
    std::vector<int> statuses;
    auto sample = [&] {
        int status = wrapper.GetStatus();
        if (statuses.empty() || statuses.back() != status) statuses.push_back(status);
    };
    std::function<void()> keep_sampling = [&] {
        sample();
        After(5, keep_sampling);
    };
    bool connecting_seen = false;

    After(0, [&] {
        // A passphrase too short to derive a key from: stored as "wrong", refused by the network.
        ASSERT_EQ(network.AddAndConnectAsync(Edited("Home", "short"), &recorder), 0);
        sample();
        EXPECT_EQ(network.connecting_essid(), "Home");
        EXPECT_TRUE(network.timer_active());
        keep_sampling();
        When([&] { return recorder.calls.size() == 1; },
             [&] {
                 EXPECT_EQ(StoredKey("Home"), "wrong");
                 EXPECT_FALSE(network.IsNetworkConnected());
                 EXPECT_EQ(network.connecting_essid(), "");
                 ASSERT_EQ(network.AddAndConnectAsync(Edited("Home", "correct horse"), &recorder),
                           0);
                 When([&] { return GetNetState() == NET_STATE_CONNECTING; },
                      [&] { connecting_seen = true; });
             });
        When([&] { return recorder.calls.size() == 2; },
             [&] {
                 EXPECT_TRUE(network.IsNetworkConnected()) << "requests may run now";
                 // The poll ends with the operation.
                 After(450, [&] {
                     EXPECT_FALSE(network.timer_active());
                     qvhost_stop_event_loop();
                 });
             });
    });
    RunLoop();

    std::vector<Outcome> expected{{2, NET_ERR_AUTH}, {2, NET_OK}};
    EXPECT_EQ(recorder.calls, expected);
    EXPECT_TRUE(recorder.on_loop_thread);
    EXPECT_EQ(g_events, expected);
    EXPECT_TRUE(connecting_seen);
    EXPECT_EQ(StoredKey("Home"), qvtest::Psk("Home", "correct horse"));
    // Queued (4) right after the enqueue, unless the worker was quicker; then the type; then idle.
    ASSERT_GE(statuses.size(), 2u);
    EXPECT_TRUE(statuses.front() == 4 || statuses.front() == 2) << statuses.front();
    EXPECT_EQ(statuses.back(), 0);
    for (int status : statuses)
        EXPECT_TRUE(status == 0 || status == 2 || status == 4) << status;
}

TEST(WifiAsync, ACancelledCallbackIsSkippedButTheNetworkIsStillUpdated) {
    SetAir(400);
    Network& network = Network::GetInstance();
    WifiAsyncWrapper& wrapper = WifiAsyncWrapper::GetInstance();
    Recorder recorder;
    After(0, [&] {
        ASSERT_EQ(network.AddAndConnectAsync(Edited("Shop", "shop-pass"), &recorder), 0);
        When([&] { return wrapper.GetStatus() == WifiAsyncWrapper::kAddNetwork; },
             [&] { EXPECT_EQ(network.CancelCallback(&recorder), 0); });
        When([&] { return g_events.size() == 1 && wrapper.GetStatus() == 0; },
             [&] {
                 After(250, [&] {
                     EXPECT_TRUE(recorder.calls.empty());
                     // Refreshed by the operation's own callback, not by a new list.
                     EXPECT_TRUE(network.IsConfigured(qvtest::LineFor("Shop")));
                     EXPECT_EQ(network.connecting_essid(), "");
                     // Given to a new operation, the same callback is live again.
                     ASSERT_EQ(wrapper.SelectAsync("Shop", &recorder), 0);
                     // An operation without a callback still tells the loop.
                     ASSERT_EQ(wrapper.SelectAsync("Home", nullptr), 0);
                 });
             });
        When([&] {
            wrapper.ProcessResults();  // nothing polls for operations started on the wrapper
            return g_events.size() == 3 && !recorder.calls.empty();
        },
             [&] { qvhost_stop_event_loop(); });
    });
    RunLoop();
    EXPECT_EQ(recorder.calls, (std::vector<Outcome>{{3, NET_OK}}));
    EXPECT_EQ(g_events, (std::vector<Outcome>{{2, NET_OK}, {3, NET_OK}, {3, NET_ERR_FAILED}}));
}

// Two adds queued back to back: each stores its own network, although the second rewrote the
// request file while the first waited; the loop reads the file through the configuration cache
// meanwhile.
TEST(WifiAsync, QueuedAddsEachStoreTheirOwnNetwork) {
    SetAir(200);
    Network& network = Network::GetInstance();
    Recorder home, shop;
    int reads = 0;
    After(0, [&] {
        ASSERT_EQ(network.AddAndConnectAsync(Edited("Home", "correct horse"), &home), 0);
        ASSERT_EQ(network.AddAndConnectAsync(Edited("Shop", "shop-pass"), &shop), 0);
        EXPECT_EQ(network.connecting_essid(), "Home") << "taken over only while no poll runs";
        When(
            [&] {
                auto& cfg = quorvel::system::config::Config::GetInstance();
                reads += cfg.ReadString("/tmp/net_to_add.cfg", "wifi.9.essid", "") == "Shop";
                return home.calls.size() + shop.calls.size() == 2;
            },
            [&] { qvhost_stop_event_loop(); });
    });
    RunLoop();
    EXPECT_GT(reads, 0);
    EXPECT_EQ(home.calls, (std::vector<Outcome>{{2, NET_OK}}));
    EXPECT_EQ(shop.calls, (std::vector<Outcome>{{2, NET_OK}}));
    EXPECT_NE(StoredKey("Home"), "(not stored)");
    EXPECT_NE(StoredKey("Shop"), "(not stored)");
    EXPECT_STREQ(NetInfo()->name, "Shop");
}

// The C interface in another process, which is the application: its loop sees the switches end,
// and after a switch-on the device connects; this process sees the link come up.
TEST(WifiAsync, TheCInterfaceSwitchesTheManagerInAnotherProcess) {
    SetAir(100);
    ASSERT_EQ(NetSelect_by_ssid("Home"), NET_ERR_FAILED) << "nothing stored yet";
    ASSERT_EQ(qvtest::StoreNetwork("Home", "correct horse", NET_SEC_WPA2), NET_OK);
    auto child = qvtest::ChildProcess::Start([] {
        static int first = 0, second = 0;
        static bool off_seen = false;
        After(0, [] {
            NetworkCWrapper_SwitchNetworkManagerAsync(0, [] {
                ++first;
                off_seen = NetworkCWrapper_IsNetworkManagerTurnedOn() == 0 &&
                           GetNetState() == NET_STATE_OFF;
            });
            When([] { return first == 1; },
                 [] {
                     // Two calls in a row share the one callback object: the latest wins.
                     NetworkCWrapper_SwitchNetworkManagerAsync(0, [] { ++first; });
                     NetworkCWrapper_SwitchNetworkManagerAsync(1, [] { ++second; });
                 });
            When([] { return second == 2 && GetNetState() == NET_STATE_CONNECTED; },
                 [] { qvhost_stop_event_loop(); });
        });
        RunLoop();
        std::printf("first %d second %d off %d events %zu\n", first, second, off_seen ? 1 : 0,
                    g_events.size());
        for (const Outcome& event : g_events)
            std::printf("event %d %d\n", event.first, event.second);
        return first == 1 && second == 2 && off_seen && g_events.size() == 3 ? 0 : 1;
    });
    auto result = child.Wait();
    EXPECT_TRUE(result.Succeeded()) << result.Describe();
    EXPECT_NE(result.output.find("event 1 0\nevent 1 0\nevent 1 0\n"), std::string::npos)
        << result.output;
    EXPECT_EQ(NetMgrStatus(), 1);
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);
    EXPECT_STREQ(NetInfo()->name, "Home");
}

}  // namespace
