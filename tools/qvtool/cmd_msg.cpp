// qvtool msg serve, qvtool msg send: datagram messages between processes of the device.
// qvtool signin: a sign-in through the device's browser.

#include <signal.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/browser_authorization.h"
#include "common_utilities/message_client.h"
#include "common_utilities/message_server.h"

namespace qvtool {
namespace {

using quorvel::utilities::BrowserAuthorization;
using quorvel::utilities::IMessage;
using quorvel::utilities::IMessageHandler;
using quorvel::utilities::MessageClient;
using quorvel::utilities::MessageServer;

constexpr size_t kMaxMessage = 16384;
constexpr int kServeWaitMs = 200;

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) {
    g_interrupted = 1;
}

// The socket name: as given, or after a zero byte in the abstract name space.
std::string SocketName(Args& args, const std::string& name) {
    std::string socket_name = args.Flag("--abstract") ? std::string(1, '\0') + name : name;
    if (socket_name.size() > 108) throw Failure(kUsage, "a socket name has at most 108 bytes");
    return socket_name;
}

class Printer : public IMessageHandler {
public:
    Printer(MessageServer* server, bool echo) : server_(server), echo_(echo) {}
    void HandleMessage(IMessage* message) override {
        std::unique_ptr<IMessage> owned(message);
        const std::vector<char>& data = message->data();
        std::cout << "message " << data.size() << " bytes: " << std::string(data.begin(), data.end())
                  << std::endl;
        if (echo_ && server_->SendResponse(message, data) != 0) {
            std::cerr << "qvtool: msg serve: the answer could not be sent" << std::endl;
        }
        ++count;
    }
    long long count = 0;

private:
    MessageServer* server_;
    bool echo_;
};

int RunServe(Args& args) {
    std::string name = args.Next("NAME");
    std::string socket_name = SocketName(args, name);
    bool echo = args.Flag("--echo");
    std::optional<std::string> count_text = args.Option("--count");
    args.Done();
    long long count = count_text ? ParseInteger(*count_text, "--count") : -1;
    if (count_text && count < 1) throw Failure(kUsage, "--count must be at least 1");

    MessageServer server;
    Printer printer(&server, echo);
    if (server.Init(socket_name.data(), socket_name.size(), &printer, kMaxMessage, false) != 0) {
        throw Failure(kFailed, "can't serve on " + name + " (a name in use, or no such folder)");
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::cout << "serving " << name << std::endl;
    while (!g_interrupted && (count < 0 || printer.count < count)) {
        if (server.ProcessMessage(kServeWaitMs) != 0 && !g_interrupted) {
            throw Failure(kFailed, "receiving failed");
        }
    }
    return g_interrupted ? kInterrupted : kOk;
}

int RunSend(Args& args) {
    std::string name = args.Next("NAME");
    std::string text = args.Next("TEXT");
    std::string socket_name = SocketName(args, name);
    std::optional<std::string> wait_text = args.Option("--wait");
    args.Done();
    long long wait_ms = wait_text ? ParseInteger(*wait_text, "--wait") : -1;
    if (wait_text && (wait_ms < 0 || wait_ms > INT32_MAX)) {
        throw Failure(kUsage, "--wait takes milliseconds, 0 or more");
    }
    if (text.size() > kMaxMessage) throw Failure(kUsage, "a message has at most 16384 bytes");

    MessageClient client;
    if (client.Init(socket_name.data(), socket_name.size(), kMaxMessage) != 0) {
        throw Failure(kNotFound, "no server at " + name);
    }
    if (client.SendMessage(text.data(), text.size()) != 0) {
        throw Failure(kUnavailable, "the server at " + name + " did not take the message");
    }
    if (!wait_text) return kOk;
    std::vector<char> answer;
    int result = client.WaitResponce(&answer, static_cast<int>(wait_ms));
    if (result == QV_TIMEOUT) throw Failure(kFailed, "no answer within " + *wait_text + " ms");
    if (result != 0) throw Failure(kFailed, "receiving the answer failed");
    std::cout << "answer " << answer.size() << " bytes: " << std::string(answer.begin(), answer.end())
              << std::endl;
    return kOk;
}

class SignInPrinter : public BrowserAuthorization::IEventHandler {
public:
    void OnText(std::string text) override { std::cout << "text: " << text << std::endl; }
    void OnNotice() override { std::cout << "notice" << std::endl; }
    void OnComplete() override {
        std::cout << "complete" << std::endl;
        completed = true;
    }
    void OnPoll() override {}
    bool completed = false;
};

int RunSignIn(Args& args) {
    std::string url = args.Next("URL");
    std::string id = args.Option("--id").value_or("qvtool");
    std::vector<std::string> params = args.Options("--param");
    args.Done();
    SignInPrinter printer;
    BrowserAuthorization auth(id, &printer);
    std::cout << "opening the browser on " << url << std::endl;
    int result = auth.Start(url, params);
    if (result != 0) throw Failure(kFailed, "the browser's socket could not be made");
    std::cout << "finished after " << auth.ElapsedMs() << " ms"
              << (printer.completed ? "" : ": the browser went away without completing")
              << std::endl;
    return printer.completed ? kOk : kFailed;
}

const bool serve_registered =
    Register({"msg serve", "receive datagram messages on a socket and print them",
              "usage: qvtool msg serve NAME [--abstract] [--echo] [--count N]\n"
              "Binds a datagram socket named NAME (a path, or with --abstract a name in the\n"
              "abstract name space, which leaves no file) and prints each message as\n"
              "\"message N bytes: TEXT\". --echo answers each message with its own bytes. Runs\n"
              "until interrupted (exit code 130), or until N messages came.\n",
              RunServe});

const bool send_registered =
    Register({"msg send", "send one datagram message and wait for the answer",
              "usage: qvtool msg send NAME TEXT [--abstract] [--wait MS]\n"
              "Sends TEXT to the server at NAME; with --wait prints its answer as\n"
              "\"answer N bytes: TEXT\", waiting up to MS milliseconds (exit code 1 if none\n"
              "comes). Exit code 3 when no server has that name.\n",
              RunSend});

const bool signin_registered =
    Register({"signin", "sign in through the device's browser and print what it reports",
              "usage: qvtool signin URL [--id ID] [--param P]...\n"
              "Opens /zelgrot/bin/browser.app on URL, with the notification id ID (default\n"
              "\"qvtool\") and the extra parameters P, and prints every message of the browser\n"
              "(\"text: ...\", \"notice\", \"complete\") until it completes (exit code 0) or\n"
              "goes away (exit code 1). The browser is given a few seconds to come up.\n",
              RunSignIn});

}  // namespace
}  // namespace qvtool
