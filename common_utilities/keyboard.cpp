#include "common_utilities/keyboard.h"

#include <unistd.h>

#include <cstring>
#include <vector>

namespace quorvel {
namespace keyboard {

namespace {

constexpr unsigned kSynchroSleepUs = 50000;

}  // namespace

unsigned int Keyboard::counter = 0;
Keyboard* Keyboard::keyboardInvoker = nullptr;
std::string Keyboard::label;

KeyboardListener::~KeyboardListener() {
    if (keyboard_) keyboard_->Forget(this);
}

Keyboard::Keyboard() {
    std::memset(buffer_, 0, sizeof buffer_);
}

Keyboard::~Keyboard() {
    if (IsKeyboardOpened()) CloseKeyboard();
    if (keyboardInvoker == this) keyboardInvoker = nullptr;
    // Listeners may outlive the keyboard: they must not reach back into it.
    auto listeners = std::move(listeners_);
    listeners_.clear();
    for (auto& entry : listeners) {
        entry.first->keyboard_ = nullptr;
        if (entry.second.owned) delete entry.first;
    }
}

unsigned int Keyboard::AddListener(KeyboardListener* listener, bool one_shot) {
    return AddListenerPrivate(listener, one_shot, false);
}

unsigned int Keyboard::AddListener(Function function, bool one_shot) {
    return AddListenerPrivate(new KeyboardToFunctionProxy(std::move(function)), one_shot, true);
}

unsigned int Keyboard::AddListenerPrivate(KeyboardListener* listener, bool one_shot, bool owned) {
    if (listener == nullptr) return 0;
    if (listener->keyboard_ != nullptr && listener->keyboard_ != this) {
        listener->keyboard_->Forget(listener);
    }
    listener->keyboard_ = this;
    ListenerInfo& info = listeners_[listener];
    info.one_shot = one_shot;
    info.owned = owned;
    info.id = ++counter;
    return info.id;
}

void Keyboard::RemoveListener(KeyboardListener* listener) {
    auto it = listeners_.find(listener);
    if (it == listeners_.end()) return;
    bool owned = it->second.owned;
    listeners_.erase(it);
    listener->keyboard_ = nullptr;
    if (owned) delete listener;
}

void Keyboard::RemoveListener(unsigned int id) {
    for (auto& entry : listeners_) {
        if (entry.second.id == id) {
            RemoveListener(entry.first);
            return;
        }
    }
}

void Keyboard::Forget(KeyboardListener* listener) {
    listeners_.erase(listener);
}

void Keyboard::ForEachListener(const std::function<void(KeyboardListener*)>& call) {
    std::vector<std::pair<KeyboardListener*, unsigned int>> round;
    for (const auto& entry : listeners_)
        round.emplace_back(entry.first, entry.second.id);
    for (const auto& member : round) {
        auto it = listeners_.find(member.first);
        if (it != listeners_.end() && it->second.id == member.second) call(member.first);
    }
}

void Keyboard::DropOneShots() {
    std::vector<KeyboardListener*> done;
    for (const auto& entry : listeners_) {
        if (entry.second.one_shot) done.push_back(entry.first);
    }
    for (KeyboardListener* listener : done)
        RemoveListener(listener);
}

void Keyboard::Open() {
    label = title_;
    label.push_back('\0');
    label += enter_text_;
    keyboardInvoker = this;
    char* buffer = no_keyboard_buffer_ ? nullptr : buffer_;
    int size = no_keyboard_buffer_ ? 0 : static_cast<int>(sizeof buffer_);
    OpenKeyboard(label.c_str(), buffer, size, flags_.ToInt(), &Keyboard::keyboardHandler);
    OnOpened();
}

void Keyboard::Open(KeyboardListener* listener) {
    if (listener) AddListenerPrivate(listener, true, false);
    Open();
}

void Keyboard::Open(Function function) {
    if (function) AddListener(std::move(function), true);
    Open();
}

std::string Keyboard::OpenSynchro(bool* answered) {
    std::string result;
    bool done = false;
    Open([&result, &done, answered](bool, const std::string& text) {
        done = true;
        result = text;
        if (answered) *answered = true;
    });
    while (!done) {
        ProcessEventLoop();
        if (!done) usleep(kSynchroSleepUs);
    }
    return result;
}

void Keyboard::Close() {
    CloseKeyboard();
}

bool Keyboard::IsOpened() const {
    return IsKeyboardOpened() != 0;
}

int Keyboard::GetHeight() const {
    return GetKeyboardRect().h;
}

void Keyboard::OnOpened() {
    ForEachListener([](KeyboardListener* listener) { listener->hasOpened(); });
}

void Keyboard::OnTextEntered(const std::string& text) {
    ForEachListener([&text](KeyboardListener* listener) { listener->textEntered(text); });
}

void Keyboard::OnClosed(bool cancelled) {
    ForEachListener([cancelled](KeyboardListener* listener) { listener->hasClosed(cancelled); });
    DropOneShots();
}

int Keyboard::keyboardHandler(char* text) {
    Keyboard* keyboard = keyboardInvoker;
    if (keyboard == nullptr) return 0;
    if (text == nullptr) {
        keyboard->ForEachListener([](KeyboardListener* l) { l->hasClosed(true); });
    } else {
        keyboard->OnTextEntered(text);
        keyboard->ForEachListener([](KeyboardListener* l) { l->hasClosed(false); });
    }
    keyboard->DropOneShots();
    keyboardInvoker = nullptr;
    return 0;
}

}  // namespace keyboard
}  // namespace quorvel

void KeyboardToFunctionProxy::hasClosed(bool cancelled) {
    if (cancelled && function_) function_(true, std::string());
}

void KeyboardToFunctionProxy::textEntered(std::string text) {
    if (function_) function_(false, text);
}
