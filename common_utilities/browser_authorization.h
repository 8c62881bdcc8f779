// Sign-in on a service's own web page: opens the device's browser on the page and waits, on the
// caller's thread, for the browser to report back over a private datagram socket in the abstract
// name space ("browser_notification" and the run's id after a zero byte).
//
// The browser's messages are one type byte and a payload: 0 a text, 1 completion (the wait ends
// and the browser stays open), 2 a notice. The wait has no limit while the browser lives; its
// death ends the wait, at the earliest in the seventh pass (about seven seconds), which leaves a
// slow browser time to come up. Once a pass, at most a second apart, the handler gets OnPoll.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "common_utilities/common_utilities.h"
#include "common_utilities/message_server.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT BrowserAuthorization : public IMessageHandler {
public:
    // What the browser reports. Every call comes on the thread that runs Start.
    class IEventHandler {
    public:
        virtual void OnText(std::string text) = 0;
        virtual void OnNotice() = 0;
        virtual void OnComplete() = 0;
        // Once a pass of the wait: the caller's chance to do something of its own.
        virtual void OnPoll() = 0;

    protected:
        ~IEventHandler() = default;
    };

    // `handler` may be null (then every message is ignored) and is not owned.
    BrowserAuthorization(std::string id, IEventHandler* handler);
    ~BrowserAuthorization() override;
    BrowserAuthorization(const BrowserAuthorization&) = delete;
    BrowserAuthorization& operator=(const BrowserAuthorization&) = delete;

    void HandleMessage(IMessage* message) override;

    // Opens the browser with "-social -notification_id <id> <extra_params...> <url>" and blocks
    // until the browser reports completion or goes away: 0, or the error of the socket's set-up.
    int Start(std::string url, const std::vector<std::string>& extra_params);
    // Brings the browser of the run under way forward: 0, or QV_WRONG_STATE with no run. Any
    // thread may call it.
    int SetFocus();
    bool IsBrowserApplicationRunning() const;
    // Milliseconds since the wait began, as of the last pass (for OnPoll).
    int ElapsedMs() const { return elapsed_ms; }

    // The argument list: freed; and a new list of copies (free it with FreeParams). Callers
    // hold `mutex`.
    void ClearParamsUnsafe();
    std::vector<char*> CopyParamsUnsafe() const;
    static void FreeParams(std::vector<char*>* list);

private:
    bool IsActive();
    void SetActive(bool value);
    void WaitForBrowser(MessageServer* server);

    std::string id;
    IEventHandler* handler;
    std::mutex mutex;
    bool active = false;
    bool keep_browser = false;
    std::vector<char*> params;
    std::string browser_path = "/zelgrot/bin/browser.app";
    int elapsed_ms = 0;
};

}  // namespace utilities
}  // namespace quorvel
