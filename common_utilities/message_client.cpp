#include "common_utilities/message_client.h"

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

// Errors of send that mean the server went away (and may be back under the same name). Linux
// answers the first send after the server closed with ECONNREFUSED and drops the connection,
// and only the next one with ENOTCONN: reconnecting on the first keeps that message too.
bool ServerGone(int err) {
    return err == ENOTCONN || err == EBADF || err == ECONNREFUSED;
}

}  // namespace

MessageClient::~MessageClient() {
    Close();
}

void MessageClient::Close() {
    if (socket_ != -1) ::close(socket_);
    socket_ = -1;
}

int MessageClient::Init(char const* remote_socket_name, size_t remote_socket_name_len,
                        size_t max_message_size) {
    QV_RETURN_UNLESS(remote_socket_name_len <= 108, QV_INVAL);
    QV_RETURN_UNLESS(-1 == socket_, QV_WRONG_STATE);
    QV_RETURN_UNLESS(NULL != remote_socket_name, QV_INVAL);
    // Reconnecting passes the kept name in again.
    if (remote_socket_name != remote_name_.data()) {
        remote_name_.assign(remote_socket_name, remote_socket_name + remote_socket_name_len);
    }
    remote_name_len_ = remote_socket_name_len;
    max_message_size_ = max_message_size;

    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    QV_RETURN_UNLESS(-1 != socket_, QV_FAILED, "socket failed with [%d]", errno);

    // The family alone: the system gives the client a unique abstract address to answer to.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    int err = ::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t));
    if (QV_CLEANUP_UNLESS(0 == err, "bind failed with [%d]", errno)) {
        Close();
        return QV_FAILED;
    }
    if (remote_name_len_ > 0) std::memcpy(address.sun_path, remote_name_.data(), remote_name_len_);
    auto address_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + remote_name_len_);
    err = ::connect(socket_, reinterpret_cast<sockaddr*>(&address), address_len);
    if (QV_CLEANUP_UNLESS(0 == err, "connect failed with [%d]", errno)) {
        Close();
        return QV_FAILED;
    }
    return QV_OK;
}

int MessageClient::SendOnce(char const* data, size_t data_size) {
    ssize_t sent = ::send(socket_, data, data_size, MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(data_size) ? 0 : -1;
}

int MessageClient::SendMessage(char const* data, size_t data_size) {
    QV_RETURN_IF(!data || data_size > max_message_size_, QV_INVAL);
    errno = 0;
    if (SendOnce(data, data_size) == 0) return 0;
    if (!ServerGone(errno)) return -1;

    Close();
    Init(remote_name_.data(), remote_name_len_, max_message_size_);
    QV_LOG(QV_LOG_INFO, "PACKET SIZE: %d", static_cast<int>(data_size));
    return SendOnce(data, data_size);
}

int MessageClient::WaitResponce(std::vector<char>* out, int timeout_ms) {
    if (timeout_ms != -1) {
        int err = WaitReadable(socket_, timeout_ms);
        if (0 == err) return QV_TIMEOUT;
        QV_RETURN_UNLESS(-1 != err, QV_FAILED, "select failed with %d", errno);
    }
    out->resize(max_message_size_);
    ssize_t actual_len = ::recv(socket_, out->data(), out->size(), 0);
    if (actual_len < 0) out->clear();
    QV_RETURN_UNLESS(actual_len >= 0, QV_FAILED, "recv failed with [%d]", errno);
    QV_LOG(QV_LOG_INFO, "PACKET SIZE: %d", static_cast<int>(actual_len));
    out->resize(static_cast<size_t>(actual_len));
    return 0;
}

int MessageClient::WaitResponceNoRead(int timeout_ms) {
    int err = WaitReadable(socket_, timeout_ms);
    if (0 == err) return QV_TIMEOUT;
    if (-1 == err) {
        QV_LOG(QV_LOG_WARNING, "select failed with %d", errno);
        return -1;
    }
    return err;
}

}  // namespace utilities
}  // namespace quorvel
