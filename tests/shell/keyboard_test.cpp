// The keyboard with several listeners, functions as listeners, and a blocking call that keeps the
// event loop running; the text is typed by this process or by another one.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "child_process.h"
#include "common_utilities/keyboard.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using namespace std::chrono_literals;
using quorvel::keyboard::Keyboard;
using quorvel::keyboard::KeyboardListener;

int NoEvents(int, int, int) {
    return 0;
}

class Recorder : public KeyboardListener {
public:
    Recorder(std::string name, std::string* log) : name_(std::move(name)), log_(log) {}
    void hasClosed(bool cancelled) override {
        *log_ += name_ + (cancelled ? ":cancel " : ":closed ");
    }
    void hasOpened() override { *log_ += name_ + ":open "; }
    void textEntered(std::string text) override { *log_ += name_ + ":text=" + text + " "; }

private:
    std::string name_;
    std::string* log_;
};

// Runs the loop until the keyboard has taken its input.
void Deliver(const char* text) {
    ASSERT_EQ(qvhost_keyboard_type(GetCurrentTask(), text), 0);
    for (int i = 0; i < 200 && IsKeyboardOpened(); ++i) {
        ProcessEventLoop();
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_FALSE(IsKeyboardOpened());
}

TEST(Keyboard, ListenersHearEveryInputInOrder) {
    qvhost_set_event_handler(NoEvents);
    std::string log;
    Recorder a("a", &log);
    auto b = std::make_unique<Recorder>("b", &log);
    Keyboard keyboard;
    keyboard.AddListener(&a, false);
    keyboard.AddListener(b.get(), true);
    unsigned function_id = keyboard.AddListener(
        [&log](bool cancelled, const std::string& text) {
            log += std::string("f(") + (cancelled ? "1" : "0") + "," + text + ") ";
        },
        false);
    keyboard.RemoveListener(function_id + 1000);  // an unused id changes nothing
    keyboard.SetTitle("Search");
    keyboard.SetEnterText("Go");
    keyboard.Open();
    EXPECT_TRUE(keyboard.IsOpened());
    EXPECT_GT(keyboard.GetHeight(), 0);
    EXPECT_EQ(qvhost_keyboard_type(GetCurrentTask() + 1, "x"), -1) << "no keyboard open there";
    Deliver("hello world");
    EXPECT_FALSE(keyboard.IsOpened());
    EXPECT_EQ(keyboard.GetHeight(), 0);

    // Listeners are kept in address order; every one hears the text before any hears the end.
    std::string text_part = log.substr(0, log.find(":closed"));
    EXPECT_NE(text_part.find("a:text=hello world"), std::string::npos) << log;
    EXPECT_NE(text_part.find("b:text=hello world"), std::string::npos) << log;
    EXPECT_NE(text_part.find("f(0,hello world)"), std::string::npos) << log;
    EXPECT_NE(log.find("a:closed"), std::string::npos);
    EXPECT_NE(log.find("b:closed"), std::string::npos);
    EXPECT_EQ(log.find("f(1"), std::string::npos) << "a function hears each input once";

    log.clear();
    keyboard.Open();
    Deliver(nullptr);  // cancelled
    EXPECT_EQ(log.find("b:"), std::string::npos) << "the one-shot listener is gone: " << log;
    EXPECT_NE(log.find("a:cancel"), std::string::npos) << log;
    EXPECT_NE(log.find("f(1,)"), std::string::npos) << log;

    // A listener that goes first takes itself out; the function's proxy goes with its id.
    log.clear();
    b = std::make_unique<Recorder>("c", &log);
    keyboard.AddListener(b.get(), false);
    b.reset();
    keyboard.RemoveListener(function_id);
    keyboard.Open([&log](bool, const std::string& text) { log += "once=" + text + " "; });
    Deliver("x");
    EXPECT_EQ(log.find("c:"), std::string::npos) << log;
    EXPECT_EQ(log.find("f("), std::string::npos) << log;
    EXPECT_NE(log.find("once=x "), std::string::npos) << log;
    EXPECT_EQ(log.substr(log.size() - 9), "a:closed ") << log;
}

TEST(Keyboard, OpenSynchroKeepsTheLoopRunning) {
    qvhost_set_event_handler(NoEvents);
    static int firings = 0;
    // A timer of the application that re-arms itself every 10 ms.
    struct Ticker {
        static void Fire(void*) {
            ++firings;
            SetHardTimerEx("tick", &Ticker::Fire, nullptr, 10);
        }
    };
    SetHardTimerEx("tick", &Ticker::Fire, nullptr, 10);

    const int task = GetCurrentTask();
    // Each round waits for the keyboard of its own title: the two inputs follow each other too
    // closely for the closed keyboard in between to be seen.
    auto typist = qvtest::ChildProcess::Start([task] {
        const std::string open_file =
            "/var/run/moorglass-host/keyboard/" + std::to_string(task) + ".open";
        for (const char* round : {"first", "second"}) {
            for (;;) {
                std::ifstream in(open_file);
                std::string title;
                if (std::getline(in, title, '\0') && title == round) break;
                usleep(5000);
            }
            usleep(300000);
            bool first = std::string(round) == "first";
            if (qvhost_keyboard_type(task, first ? "typed line" : nullptr) != 0) return 1;
        }
        return 0;
    });

    Keyboard keyboard;
    bool answered = false;
    keyboard.SetTitle("first");
    EXPECT_EQ(keyboard.OpenSynchro(&answered), "typed line");
    EXPECT_TRUE(answered);
    EXPECT_GE(firings, 4) << "timers of the loop fire while the call waits";
    answered = false;
    keyboard.SetTitle("second");
    EXPECT_EQ(keyboard.OpenSynchro(&answered), "") << "cancelled";
    EXPECT_TRUE(answered) << "an answer came, though not a confirmed one";
    EXPECT_TRUE(typist.Wait(10s).Succeeded());
    ClearTimerEx(&Ticker::Fire, nullptr);
}

}  // namespace
