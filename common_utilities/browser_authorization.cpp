#include "common_utilities/browser_authorization.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "boardprofile.h"

namespace quorvel {
namespace utilities {

namespace {

constexpr size_t kMaxMessageSize = 16384;
constexpr int kPassMs = 1000;
// The browser may take this many passes to come up before its absence ends the wait.
constexpr int kPassesBeforeBrowserCheck = 7;
constexpr unsigned kAfterKillSeconds = 1;
constexpr unsigned kBrowserStartSeconds = 2;

// A browser left over from an earlier run would keep the old run's id.
void RunShell(const char* command) {
    int status = std::system(command);
    (void)status;  // nothing to kill is fine
}

enum MessageType : unsigned char { kText = 0, kComplete = 1, kNotice = 2 };

}  // namespace

BrowserAuthorization::BrowserAuthorization(std::string id, IEventHandler* handler)
    : id(std::move(id)), handler(handler) {}

BrowserAuthorization::~BrowserAuthorization() {
    std::lock_guard<std::mutex> lock(mutex);
    ClearParamsUnsafe();
}

void BrowserAuthorization::HandleMessage(IMessage* message) {
    std::unique_ptr<IMessage> owned(message);
    const std::vector<char>& data = message->data();
    if (data.empty() || handler == nullptr) return;
    int type = static_cast<unsigned char>(data[0]);
    QV_LOG_INFO("WebAuthorization::HandleMessage. type = [%d]", type);
    switch (type) {
        case kText:
            handler->OnText(std::string(data.begin() + 1, data.end()));
            break;
        case kComplete: {
            handler->OnComplete();
            std::lock_guard<std::mutex> lock(mutex);
            active = false;
            keep_browser = true;
            break;
        }
        case kNotice:
            handler->OnNotice();
            break;
        default:
            break;
    }
}

int BrowserAuthorization::Start(std::string url, const std::vector<std::string>& extra_params) {
    std::string name = std::string(1, '\0') + "browser_notification" + id;
    MessageServer server;
    int err = server.Init(name.data(), name.size(), this, kMaxMessageSize, false);
    if (err != QV_OK) {
        QV_LOG_ERR(err);
        return err;
    }
    std::vector<char*> copy;
    {
        std::lock_guard<std::mutex> lock(mutex);
        active = true;
        keep_browser = false;
        ClearParamsUnsafe();
        for (const char* fixed : {"-social", "-notification_id"})
            params.push_back(::strdup(fixed));
        params.push_back(::strdup(id.c_str()));
        for (const std::string& extra : extra_params)
            params.push_back(::strdup(extra.c_str()));
        params.push_back(::strdup(url.c_str()));
        copy = CopyParamsUnsafe();
    }
    QV_LOG_INFO("Starting authorization for [%s]", url.c_str());
    RunShell("killall -9 browser.app");
    RunShell("killall -9 browser_store.app");
    ::sleep(kAfterKillSeconds);

    OpenBook2(browser_path.c_str(), static_cast<int>(copy.size()), copy.data(), 0);
    ::sleep(kBrowserStartSeconds);
    int task = FindTaskByAppName(browser_path.c_str());
    std::fprintf(stderr, "[WebAuthorization]task = %d\n", task);
    if (task == -1) OpenBook2(browser_path.c_str(), static_cast<int>(copy.size()), copy.data(), 0);
    FreeParams(&copy);

    WaitForBrowser(&server);

    QV_LOG_INFO("Authorization finished.");
    task = FindTaskByAppName(browser_path.c_str());
    bool keep = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        keep = keep_browser;
    }
    if (task != -1 && !keep) CloseTask(task, -1, 1);
    return 0;
}

void BrowserAuthorization::WaitForBrowser(MessageServer* server) {
    unsigned long long started = hw_boottime_ms();
    elapsed_ms = 0;
    for (int pass = 1; IsActive(); ++pass) {
        server->ProcessMessage(kPassMs);
        if (pass >= kPassesBeforeBrowserCheck && !IsBrowserApplicationRunning()) SetActive(false);
        elapsed_ms = static_cast<int>(hw_boottime_ms() - started);
        if (handler != nullptr) handler->OnPoll();
    }
}

int BrowserAuthorization::SetFocus() {
    std::vector<char*> copy;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!active) return QV_WRONG_STATE;
        copy = CopyParamsUnsafe();
    }
    if (IsBrowserApplicationRunning()) {
        OpenBook2(browser_path.c_str(), static_cast<int>(copy.size()), copy.data(), 0);
    }
    FreeParams(&copy);
    return 0;
}

bool BrowserAuthorization::IsBrowserApplicationRunning() const {
    return FindTaskByAppName(browser_path.c_str()) != -1;
}

bool BrowserAuthorization::IsActive() {
    std::lock_guard<std::mutex> lock(mutex);
    return active;
}

void BrowserAuthorization::SetActive(bool value) {
    std::lock_guard<std::mutex> lock(mutex);
    active = value;
}

void BrowserAuthorization::ClearParamsUnsafe() {
    FreeParams(&params);
}

std::vector<char*> BrowserAuthorization::CopyParamsUnsafe() const {
    std::vector<char*> copy;
    copy.reserve(params.size() + 1);
    for (const char* param : params)
        copy.push_back(::strdup(param));
    return copy;
}

void BrowserAuthorization::FreeParams(std::vector<char*>* list) {
    for (char* param : *list)
        std::free(param);
    list->clear();
}

}  // namespace utilities
}  // namespace quorvel
