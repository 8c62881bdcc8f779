// The host's network service and screen: one state for every process of the device.

#include <gtest/gtest.h>

#include <string>

#include "child_process.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using qvtest::RunInChild;

bool Connected() {
    return (QueryNetwork() & NET_QUERY_CONNECTED_MASK) != 0;
}

TEST(HostNetwork, LinkStateIsSharedByAllProcesses) {
    EXPECT_TRUE(Connected());  // a fresh device is online
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);

    qvhost_set_network_up(0);
    EXPECT_FALSE(Connected());
    EXPECT_EQ(GetNetState(), NET_STATE_OFF);
    EXPECT_EQ(RunInChild([] { return Connected() ? 1 : 0; }).exit_code, 0);

    qvhost_set_net_state(NET_STATE_CONNECTING);
    EXPECT_FALSE(Connected());
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTING);

    // Changes made elsewhere are seen at the next call, however soon.
    ASSERT_TRUE(RunInChild([] {
                    qvhost_set_network_up(1);
                    return 0;
                }).Succeeded());
    EXPECT_TRUE(Connected());
    EXPECT_EQ(GetNetState(), NET_STATE_CONNECTED);
    for (int i = 0; i < 20; ++i) {
        qvhost_set_network_up(i % 2);
        ASSERT_EQ(Connected(), i % 2 == 1) << i;
    }
}

TEST(HostNetwork, ProxyIsHandedOutAndReleased) {
    char* proxy = get_proxy();
    EXPECT_EQ(proxy, nullptr);
    clean_proxy_object(&proxy);  // nothing to release
    clean_proxy_object(nullptr);

    qvhost_set_proxy("http://10.0.0.1:3128");
    proxy = get_proxy();
    ASSERT_NE(proxy, nullptr);
    EXPECT_STREQ(proxy, "http://10.0.0.1:3128");
    clean_proxy_object(&proxy);
    EXPECT_EQ(proxy, nullptr);

    qvhost_set_proxy("");
    EXPECT_EQ(get_proxy(), nullptr);
}

TEST(HostDisplay, ScreenSizeHasHostDefaultsAndIsShared) {
    EXPECT_EQ(ScreenWidth(), 1072);
    EXPECT_EQ(ScreenHeight(), 1448);
    ASSERT_TRUE(RunInChild([] {
                    qvhost_set_screen_size(758, 1024);
                    return 0;
                }).Succeeded());
    EXPECT_EQ(ScreenWidth(), 758);
    EXPECT_EQ(ScreenHeight(), 1024);
}

}  // namespace
