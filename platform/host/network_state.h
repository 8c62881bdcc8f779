// The block of network state that every process of the device maps shared ("network.state" in
// the state directory): the link, the proxy, and the Wi-Fi service's switches and behaviour.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qvhost {

constexpr size_t kProxyCapacity = 1024;

struct NetworkBlock {
    uint32_t magic;
    std::atomic<int32_t> state;
    char proxy[kProxyCapacity];
    // Fields are only ever added at the end, each with zero as its default, so that a block made
    // by an older build reads them right: a network in reach, no connect asked for yet, the radio
    // and the network manager on, blocking calls without delay, outcomes as the air decides.
    std::atomic<int32_t> unreachable;
    std::atomic<int32_t> connect_calls;
    std::atomic<int32_t> manager_off;
    std::atomic<int32_t> radio_off;
    std::atomic<int32_t> delay_ms;
    std::atomic<int32_t> outcome;
    std::atomic<int64_t> last_ping;  // CLOCK_REALTIME seconds of the last NetMgrPing
};
static_assert(std::atomic<int32_t>::is_always_lock_free, "the block is shared between processes");
static_assert(std::atomic<int64_t>::is_always_lock_free, "the block is shared between processes");

// The block of the current state directory, mapped on first use; null only when the state
// directory can't be written.
NetworkBlock* SharedNetworkBlock();

}  // namespace qvhost
