// Request and response between processes of the device over Unix datagram sockets: the client
// side. The client binds to an address of its own that the system makes up (autobind), so that
// the server can answer it; it is connected to one server and follows that server through a
// restart. Used from one thread at a time.
#pragma once

#include <cstddef>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT MessageClient {
public:
    MessageClient() = default;
    ~MessageClient();
    MessageClient(const MessageClient&) = delete;
    MessageClient& operator=(const MessageClient&) = delete;

    // Connects to the server of that name (up to 108 bytes; a leading zero byte: abstract).
    int Init(char const* remote_socket_name, size_t remote_socket_name_len,
             size_t max_message_size);
    // Sends one datagram of at most the maximum size. A server that went away or restarted is
    // connected to again, and the datagram sent once more.
    int SendMessage(char const* data, size_t data_size);
    // Receives one datagram into `out`, cut to the maximum size: 0, -1, or QV_TIMEOUT when
    // nothing came within `timeout_ms` (-1: no limit).
    int WaitResponce(std::vector<char>* out, int timeout_ms);
    // Waits without reading: positive when a datagram is there, -1, or QV_TIMEOUT.
    int WaitResponceNoRead(int timeout_ms);

private:
    void Close();
    // The result of send for the whole of `data`: 0 when all went, -1 otherwise; errno is kept.
    int SendOnce(char const* data, size_t data_size);

    int socket_ = -1;
    size_t max_message_size_ = 0;
    std::vector<char> remote_name_;
    size_t remote_name_len_ = 0;
};

}  // namespace utilities
}  // namespace quorvel
