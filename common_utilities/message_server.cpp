#include "common_utilities/message_server.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "common_utilities/socket_wait.h"

namespace quorvel {
namespace utilities {

namespace {

constexpr int kThreadWaitMs = 1000;

// The address of a name with an explicit length; its length as bind takes it.
socklen_t NamedAddress(char const* name, size_t name_len, sockaddr_un* address) {
    std::memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (name_len > 0) std::memcpy(address->sun_path, name, name_len);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_len);
}

}  // namespace

MessageServer::~MessageServer() {
    Deinit();
}

int MessageServer::Init(char const* socket_name, size_t socket_name_len,
                        IMessageHandler* handler, size_t max_message_size, bool own_thread) {
    QV_RETURN_UNLESS(socket_name_len <= 108, QV_INVAL);
    QV_RETURN_UNLESS(NULL == handler_, QV_WRONG_STATE);
    QV_RETURN_UNLESS(NULL != handler, QV_INVAL);
    QV_RETURN_IF(NULL == socket_name && socket_name_len > 0, QV_INVAL);
    handler_ = handler;
    max_message_size_ = max_message_size;

    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (-1 == socket_) {
        handler_ = nullptr;
        QV_RETURN_UNLESS(-1 != socket_, QV_FAILED, "socket failed with [%d]", errno);
    }
    sockaddr_un address;
    socklen_t address_len = NamedAddress(socket_name, socket_name_len, &address);
    int err = ::bind(socket_, reinterpret_cast<sockaddr*>(&address), address_len);
    if (QV_CLEANUP_UNLESS(0 == err, "bind failed with [%d]", errno)) {
        Deinit();
        return QV_FAILED;
    }
    running = true;
    if (!own_thread) return QV_OK;

    err = ::pthread_create(&thread_, nullptr, &MessageServer::ThreadLoop, this);
    if (QV_CLEANUP_UNLESS(0 == err, "bind failed with [%d]", err)) {
        Deinit();
        return QV_FAILED;
    }
    has_thread_ = true;
    return QV_OK;
}

void* MessageServer::ThreadLoop(void* arg) {
    auto* server = static_cast<MessageServer*>(arg);
    while (server->running) server->ProcessMessage(kThreadWaitMs);
    return nullptr;
}

int MessageServer::ProcessMessage(int timeout_ms) {
    if (timeout_ms != -1) {
        int err = WaitReadable(socket_, timeout_ms);
        if (0 == err) return 0;
        QV_RETURN_UNLESS(-1 != err, QV_FAILED, "select failed with %d", errno);
        // Deinit wakes the server's thread by shutting the socket down: that is no message.
        if (!running) return 0;
    }

    auto* message = new Message;
    message->bytes.resize(max_message_size_);
    message->sender_len = sizeof(sockaddr_un);
    ssize_t len = ::recvfrom(socket_, message->bytes.data(), message->bytes.size(), 0,
                             reinterpret_cast<sockaddr*>(&message->sender), &message->sender_len);
    if (-1 == len) {
        QV_LOG_ERROR("recv failed with [%d]", errno);
        delete message;
        return -1;
    }
    if (!running) {
        delete message;
        return 0;
    }
    message->bytes.resize(static_cast<size_t>(len));
    QV_LOG(QV_LOG_INFO, "PACKET SIZE: %d", static_cast<int>(len));
    handler_->HandleMessage(message);
    return 0;
}

int MessageServer::SendResponse(IMessage* message, char const* data, size_t data_size) {
    auto* received = static_cast<Message*>(message);
    ssize_t sent = ::sendto(socket_, data, data_size, MSG_NOSIGNAL,
                            reinterpret_cast<const sockaddr*>(&received->sender),
                            received->sender_len);
    int len = static_cast<int>(sent);
    QV_RETURN_UNLESS(len == (int)data_size, QV_FAILED, "sendto failed with [%d]", errno);
    return 0;
}

int MessageServer::SendResponse(IMessage* message, const std::vector<char>& data) {
    return SendResponse(message, data.data(), data.size());
}

void MessageServer::StopThread() {
    if (!has_thread_) return;
    has_thread_ = false;
    if (::pthread_equal(::pthread_self(), thread_)) {
        // Called from the handler: the thread sees the cleared flag when the handler returns.
        ::pthread_detach(thread_);
        return;
    }
    // A shut-down socket reads as ready, so the thread leaves its wait now.
    ::shutdown(socket_, SHUT_RD);
    ::pthread_join(thread_, nullptr);
}

int MessageServer::Deinit() {
    running = false;
    if (socket_ != -1) {
        StopThread();
        ::close(socket_);
        socket_ = -1;
    }
    handler_ = nullptr;
    return 0;
}

}  // namespace utilities
}  // namespace quorvel
