// Datagram messaging between real processes: names at the length limit in both name spaces,
// datagrams cut to the maximum size, a server restarted under a connected client, and one
// threaded server answering many client processes.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/message_client.h"
#include "common_utilities/message_server.h"
#include "log_capture.h"

namespace {

using namespace std::chrono_literals;
using quorvel::utilities::IMessage;
using quorvel::utilities::IMessageHandler;
using quorvel::utilities::MessageClient;
using quorvel::utilities::MessageServer;

std::string Text(const std::vector<char>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

// Answers every message with its own bytes, and keeps the last one's.
class EchoHandler : public IMessageHandler {
public:
    explicit EchoHandler(MessageServer* server) : server_(server) {}
    void HandleMessage(IMessage* message) override {
        std::unique_ptr<IMessage> owned(message);
        last = Text(message->data());
        server_->SendResponse(message, message->data());
        ++count;
    }
    std::string last;
    std::atomic<int> count{0};

private:
    MessageServer* server_;
};

// A child that serves `messages` echoes on `name` and then ends; `ready` is raised once bound.
qvtest::ChildProcess EchoServer(const std::string& name, int messages,
                                qvtest::Rendezvous* ready) {
    return qvtest::ChildProcess::Start([name, messages, ready] {
        MessageServer server;
        EchoHandler handler(&server);
        if (server.Init(name.data(), name.size(), &handler, 1024, false) != 0) return 1;
        ready->Signal();
        while (handler.count < messages) {
            if (server.ProcessMessage(-1) != 0) return 2;
        }
        return 0;
    });
}

// One round trip through a fresh client: the answer's text, or an error marker.
std::string RoundTrip(const std::string& name, const std::string& text) {
    MessageClient client;
    if (client.Init(name.data(), name.size(), 1024) != 0) return "<init failed>";
    if (client.SendMessage(text.data(), text.size()) != 0) return "<send failed>";
    std::vector<char> answer;
    if (client.WaitResponce(&answer, 5000) != 0) return "<no answer>";
    return Text(answer);
}

TEST(Messaging, NamesUpTo108BytesInBothNameSpaces) {
    std::string path = "/tmp/" + std::string(103, 'f');  // 108 bytes, no terminator in sun_path
    std::string abstract = std::string(1, '\0') + std::string(107, 'a');
    ASSERT_EQ(108u, path.size());
    ASSERT_EQ(108u, abstract.size());

    for (const std::string& name : {path, abstract}) {
        qvtest::Rendezvous ready;
        auto server = EchoServer(name, 1, &ready);
        ASSERT_TRUE(ready.Wait());
        EXPECT_EQ("ping", RoundTrip(name, "ping"));
        auto result = server.Wait(10s);
        EXPECT_TRUE(result.Succeeded()) << result.Describe();
    }
    // The file-system name is a socket file on the disk; the abstract one leaves nothing.
    struct stat info {};
    ASSERT_EQ(0, ::stat(path.c_str(), &info));
    EXPECT_TRUE(S_ISSOCK(info.st_mode));

    qvtest::LogCapture log;
    std::string too_long = path + "x";
    MessageServer server;
    EchoHandler handler(&server);
    EXPECT_EQ(QV_INVAL, server.Init(too_long.data(), too_long.size(), &handler, 16, false));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine(
                               "Condition: \"socket_name_len <= 108\", return(\"QV_INVAL\")]")));
    MessageClient client;
    EXPECT_EQ(QV_INVAL, client.Init(too_long.data(), too_long.size(), 16));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine("Condition: \"remote_socket_name_len <= 108\", "
                                           "return(\"QV_INVAL\")]")));
}

TEST(Messaging, SecondInitIsRefusedAndLeavesTheFirstAlone) {
    std::string name = std::string(1, '\0') + "qv-second-init";
    MessageServer server;
    EchoHandler handler(&server);
    ASSERT_EQ(QV_OK, server.Init(name.data(), name.size(), &handler, 64, false));
    qvtest::LogCapture log;
    std::string other = std::string(1, '\0') + "qv-other";
    EXPECT_EQ(QV_WRONG_STATE, server.Init(other.data(), other.size(), &handler, 64, false));
    EXPECT_TRUE(log.Has(1, qvtest::PidLine(
                               "Condition: \"NULL == handler_\", return(\"QV_WRONG_STATE\")]")));

    MessageClient client;
    ASSERT_EQ(QV_OK, client.Init(name.data(), name.size(), 64));
    EXPECT_EQ(QV_WRONG_STATE, client.Init(name.data(), name.size(), 64));
    // The first server still receives and answers.
    ASSERT_EQ(0, client.SendMessage("still", 5));
    ASSERT_EQ(0, server.ProcessMessage(1000));
    EXPECT_EQ("still", handler.last);
    std::vector<char> answer;
    ASSERT_EQ(0, client.WaitResponce(&answer, 1000));
    EXPECT_EQ("still", Text(answer));

    // Nothing pending: both waits end at once.
    EXPECT_EQ(0, server.ProcessMessage(0));
    EXPECT_EQ(QV_TIMEOUT, client.WaitResponce(&answer, 0));
    EXPECT_EQ(QV_TIMEOUT, client.WaitResponceNoRead(0));
    // A second server can't take a name in use.
    MessageServer second;
    EchoHandler second_handler(&second);
    EXPECT_EQ(QV_FAILED, second.Init(name.data(), name.size(), &second_handler, 64, false));
    EXPECT_TRUE(log.HasFragment(1, "Condition 0 == err failed. bind failed with [98]"));
}

TEST(Messaging, DatagramsAreLimitedToTheMaximumSize) {
    std::string name = std::string(1, '\0') + "qv-max-size";
    MessageServer server;
    EchoHandler handler(&server);
    ASSERT_EQ(QV_OK, server.Init(name.data(), name.size(), &handler, 16, false));

    // A client of another process: 16 bytes go, 17 are refused before sending.
    auto child = qvtest::RunInChild([name] {
        MessageClient client;
        if (client.Init(name.data(), name.size(), 16) != 0) return 1;
        std::string full(16, 'm');
        if (client.SendMessage(full.data(), 17) != QV_INVAL) return 2;
        if (client.SendMessage(nullptr, 1) != QV_INVAL) return 3;
        return client.SendMessage(full.data(), full.size()) == 0 ? 0 : 4;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    ASSERT_EQ(0, server.ProcessMessage(1000));
    EXPECT_EQ(std::string(16, 'm'), handler.last);

    // A longer datagram from a sender that knows no limit is cut to the server's maximum.
    int raw = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    std::string long_text = "0123456789abcdefTAIL";
    ASSERT_EQ(static_cast<ssize_t>(long_text.size()),
              ::sendto(raw, long_text.data(), long_text.size(), 0,
                       reinterpret_cast<sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())));
    qvtest::LogCapture log;
    ASSERT_EQ(0, server.ProcessMessage(1000));
    EXPECT_EQ("0123456789abcdef", handler.last);
    EXPECT_TRUE(log.Has(4, qvtest::PidLine("PACKET SIZE: 16")));
    ::close(raw);
}

TEST(Messaging, ClientFollowsAServerThatRestarted) {
    std::string name = std::string(1, '\0') + "qv-restart";
    qvtest::Rendezvous first_ready;
    auto first = EchoServer(name, 1, &first_ready);
    ASSERT_TRUE(first_ready.Wait());

    MessageClient client;
    ASSERT_EQ(QV_OK, client.Init(name.data(), name.size(), 1024));
    std::vector<char> answer;
    ASSERT_EQ(0, client.SendMessage("one", 3));
    ASSERT_EQ(0, client.WaitResponce(&answer, 5000));
    EXPECT_EQ("one", Text(answer));
    ASSERT_TRUE(first.Wait(10s).Succeeded());

    // A new server process under the same name: the very next message reaches it.
    qvtest::Rendezvous second_ready;
    auto second = EchoServer(name, 1, &second_ready);
    ASSERT_TRUE(second_ready.Wait());
    qvtest::LogCapture log;
    ASSERT_EQ(0, client.SendMessage("two", 3));
    EXPECT_TRUE(log.Has(4, qvtest::PidLine("PACKET SIZE: 3")));
    ASSERT_EQ(0, client.WaitResponce(&answer, 5000));
    EXPECT_EQ("two", Text(answer));
    ASSERT_TRUE(second.Wait(10s).Succeeded());

    // No server at all: the message fails, and the client tries again on the next one.
    EXPECT_EQ(-1, client.SendMessage("three", 5));
    EXPECT_EQ(-1, client.SendMessage("four", 4));
    qvtest::Rendezvous third_ready;
    auto third = EchoServer(name, 1, &third_ready);
    ASSERT_TRUE(third_ready.Wait());
    ASSERT_EQ(0, client.SendMessage("five", 4));
    ASSERT_EQ(0, client.WaitResponce(&answer, 5000));
    EXPECT_EQ("five", Text(answer));
    EXPECT_TRUE(third.Wait(10s).Succeeded());
}

TEST(Messaging, ThreadedServerAnswersManyClientsAndStopsAtDeinit) {
    constexpr int kClients = 6;
    constexpr int kMessages = 40;
    std::string name = std::string(1, '\0') + "qv-threaded";
    // The clients are forked before the server's thread starts.
    qvtest::Rendezvous ready;
    std::vector<qvtest::ChildProcess> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.push_back(qvtest::ChildProcess::Start([&ready, name, c] {
            if (!ready.Wait()) return 1;
            MessageClient client;
            if (client.Init(name.data(), name.size(), 256) != 0) return 2;
            for (int i = 0; i < kMessages; ++i) {
                std::string text = std::to_string(c) + ":" + std::to_string(i);
                std::vector<char> answer;
                if (client.SendMessage(text.data(), text.size()) != 0) return 3;
                if (client.WaitResponce(&answer, 5000) != 0) return 4;
                if (Text(answer) != text) return 5;  // each client gets its own answers
            }
            return 0;
        }));
    }
    MessageServer server;
    EchoHandler handler(&server);
    ASSERT_EQ(QV_OK, server.Init(name.data(), name.size(), &handler, 256, true));
    for (int c = 0; c < kClients; ++c) ready.Signal();
    for (auto& client : clients) {
        auto result = client.Wait(30s);
        EXPECT_TRUE(result.Succeeded()) << result.Describe();
    }
    EXPECT_EQ(kClients * kMessages, handler.count.load());

    // Deinit stops the thread now, not at its next wake-up a second later.
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, server.Deinit());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 500ms);
    EXPECT_EQ(QV_OK, server.Init(name.data(), name.size(), &handler, 256, true));
    EXPECT_EQ("x", RoundTrip(name, "x"));
}

}  // namespace
