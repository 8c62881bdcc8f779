// Request and response between processes of the device over Unix datagram sockets: the server
// side, and the message form both sides share.
//
// One message is one datagram; the bytes are the business of the two ends. A socket name is a run
// of bytes with an explicit length, put into sun_path without a terminator, so a name that begins
// with a zero byte lives in the abstract name space and leaves no file behind. A name in the file
// system stays on the disk after the server closes; binding it again fails until its owner
// removes it, which the server never does by itself (the file may be another server's).
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <vector>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT IMessage {
public:
    virtual const std::vector<char>& data() const = 0;
    virtual ~IMessage() = default;
};

// A received datagram and where it came from, so that an answer can go back to the sender.
class QV_EXPORT Message : public IMessage {
public:
    const std::vector<char>& data() const override { return bytes; }

    std::vector<char> bytes;
    sockaddr_un sender{};
    socklen_t sender_len = sizeof(sockaddr_un);
};

class QV_EXPORT IMessageHandler {
public:
    // The handler owns `message` from here on.
    virtual void HandleMessage(IMessage* message) = 0;
    virtual ~IMessageHandler() = default;
};

class QV_EXPORT MessageServer {
public:
    MessageServer() = default;
    ~MessageServer();
    MessageServer(const MessageServer&) = delete;
    MessageServer& operator=(const MessageServer&) = delete;

    // Binds the socket. With `own_thread` a thread of the server delivers the messages to the
    // handler; without it the owner calls ProcessMessage. Names of up to 108 bytes.
    int Init(char const* socket_name, size_t socket_name_len, IMessageHandler* handler,
             size_t max_message_size, bool own_thread);
    // Waits up to `timeout_ms` (-1: no limit) for one message and hands it to the handler. 0 after
    // a message or a time-out, -1 on failure. A datagram longer than the maximum size is cut.
    int ProcessMessage(int timeout_ms);
    // Sends `size` bytes to the sender of `message`: 0, or -1. Any thread may call it.
    int SendResponse(IMessage* message, char const* data, size_t size);
    int SendResponse(IMessage* message, const std::vector<char>& data);
    // Closes the socket. The server's own thread is stopped and joined first (at once, not at
    // its next wake-up), so that neither the handler nor the socket is used after this returns;
    // from the handler itself the thread is only told to leave.
    int Deinit();

private:
    static void* ThreadLoop(void* arg);
    void StopThread();

    int socket_ = -1;
    IMessageHandler* handler_ = nullptr;
    size_t max_message_size_ = 0;
    pthread_t thread_{};
    std::atomic<bool> running{false};
    bool has_thread_ = false;
};

}  // namespace utilities
}  // namespace quorvel
