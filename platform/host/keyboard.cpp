// The on-screen keyboard of the host. A process's keyboard is open between OpenKeyboard and the
// end of its input; while it is, "keyboard/<task>.open" in the state directory holds its title,
// so that another process (qvtool, a test) can find it and type into it with
// qvhost_keyboard_type, which leaves the input in "keyboard/<task>.input". The keyboard looks for
// its input with a hard timer of the event loop, so the handler runs on the loop's thread, in a
// nested loop (ProcessEventLoop) as much as in the application's own.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

constexpr int kPollMs = 20;
// The first byte of an input file: the text follows 'T'; 'C' alone is a cancel.
constexpr char kText = 'T';
constexpr char kCancel = 'C';

struct KeyboardState {
    bool open = false;
    char* buffer = nullptr;
    int size = 0;
    mg_keyboard_handler handler = nullptr;
};

KeyboardState g_keyboard;  // the loop's thread only

std::string KeyboardDir() {
    return qvhost::StatePath("keyboard");
}

std::string TaskFile(int task, const char* suffix) {
    return KeyboardDir() + "/" + std::to_string(task) + suffix;
}

bool WriteAtomically(const std::string& path, const std::string& text) {
    std::string temp = path + "." + std::to_string(::getpid()) + ".new";
    {
        std::ofstream out(temp, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) return false;
    }
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

void MarkClosed() {
    g_keyboard = KeyboardState{};
    ::unlink(TaskFile(GetCurrentTask(), ".open").c_str());
    ::unlink(TaskFile(GetCurrentTask(), ".input").c_str());
}

void Deliver(const std::string& input) {
    KeyboardState state = g_keyboard;
    MarkClosed();
    if (state.handler == nullptr) return;
    if (input.empty() || input[0] != kText) {
        state.handler(nullptr);
        return;
    }
    std::string text = input.substr(1);
    if (state.buffer != nullptr && state.size > 0) {
        // The text typed replaces the starting text, cut to the buffer as the device's keyboard
        // stops taking keys when it is full.
        std::snprintf(state.buffer, static_cast<size_t>(state.size), "%s", text.c_str());
        state.handler(state.buffer);
        return;
    }
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    state.handler(copy.data());
}

void PollInput(void*) {
    if (!g_keyboard.open) return;
    std::string path = TaskFile(GetCurrentTask(), ".input");
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        SetHardTimerEx("keyboard", PollInput, nullptr, kPollMs);
        return;
    }
    std::string input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Deliver(input);
}

}  // namespace

extern "C" {

void OpenKeyboard(const char* label, char* buffer, int size, int flags,
                  mg_keyboard_handler handler) {
    (void)flags;
    qvhost::EnsureStateDir();
    ::mkdir(KeyboardDir().c_str(), 0755);
    ::unlink(TaskFile(GetCurrentTask(), ".input").c_str());
    g_keyboard.open = true;
    g_keyboard.buffer = buffer;
    g_keyboard.size = size;
    g_keyboard.handler = handler;
    WriteAtomically(TaskFile(GetCurrentTask(), ".open"), label ? label : "");
    SetHardTimerEx("keyboard", PollInput, nullptr, kPollMs);
}

void CloseKeyboard(void) {
    if (!g_keyboard.open) return;
    ClearTimerEx(PollInput, nullptr);
    MarkClosed();
}

int IsKeyboardOpened(void) {
    return g_keyboard.open ? 1 : 0;
}

irect GetKeyboardRect(void) {
    if (!g_keyboard.open) return irect{0, 0, 0, 0};
    // The keyboard takes the lower part of the screen, the edit line and keys.
    int height = ScreenHeight() * 2 / 5;
    return irect{0, ScreenHeight() - height, ScreenWidth(), height};
}

int qvhost_keyboard_is_open(int task) {
    struct stat info;
    return ::stat(TaskFile(task, ".open").c_str(), &info) == 0 ? 1 : 0;
}

int qvhost_keyboard_type(int task, const char* text) {
    if (!qvhost_keyboard_is_open(task)) return -1;
    std::string input = text ? std::string(1, kText) + text : std::string(1, kCancel);
    return WriteAtomically(TaskFile(task, ".input"), input) ? 0 : -1;
}

}  // extern "C"
