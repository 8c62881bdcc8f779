// The on-screen keyboard for applications: several listeners may follow one input, a listener
// may be a plain function, and a line of text can be asked for in one blocking call while the
// application's event loop keeps running. Everything here belongs on the UI thread.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {

// A set of flags of the enumeration `E`, kept as the platform's integer.
template <typename E>
class Flags {
public:
    Flags() = default;
    Flags(E flag) : value_(static_cast<int>(flag)) {}  // NOLINT: a flag is a set of one
    static Flags FromInt(int value) {
        Flags flags;
        flags.value_ = value;
        return flags;
    }
    Flags operator|(E flag) const { return FromInt(value_ | static_cast<int>(flag)); }
    bool Has(E flag) const { return (value_ & static_cast<int>(flag)) != 0; }
    int ToInt() const { return value_; }
    bool operator==(const Flags& other) const { return value_ == other.value_; }

private:
    int value_ = 0;
};

namespace keyboard {

class Keyboard;

class QV_EXPORT KeyboardListener {
public:
    virtual ~KeyboardListener();
    // The input ended: cancelled, or confirmed after textEntered.
    virtual void hasClosed(bool cancelled) = 0;
    virtual void hasOpened() = 0;
    virtual void textEntered(std::string text) = 0;

private:
    friend class Keyboard;
    Keyboard* keyboard_ = nullptr;
};

class QV_EXPORT Keyboard {
public:
    enum FLAGS {
        NORMAL = KBD_NORMAL,
        PASSWORD = KBD_PASSWORD,
        NUMERIC = KBD_NUMERIC,
        URL = KBD_URL,
        MULTILINE = KBD_MULTILINE,
    };
    using Function = std::function<void(bool cancelled, const std::string& text)>;

    struct ListenerInfo {
        bool one_shot = false;
        bool owned = false;
        unsigned int id = 0;
    };

    Keyboard();
    virtual ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    // Registers (or re-registers, with a new id) a listener; one-shot ones go when the input ends.
    unsigned int AddListener(KeyboardListener* listener, bool one_shot);
    unsigned int AddListener(Function function, bool one_shot);
    unsigned int AddListenerPrivate(KeyboardListener* listener, bool one_shot, bool owned);
    void RemoveListener(KeyboardListener* listener);
    void RemoveListener(unsigned int id);

    void SetTitle(const std::string& title) { title_ = title; }
    void SetEnterText(const std::string& text) { enter_text_ = text; }
    void SetFlags(Flags<FLAGS> flags) { flags_ = flags; }
    Flags<FLAGS> GetFlags() const { return flags_; }
    // Without a buffer the platform's input starts empty.
    void SetNoKeyboardBuffer(bool no_buffer) { no_keyboard_buffer_ = no_buffer; }
    bool IsNoKeyboardBuffer() const { return no_keyboard_buffer_; }

    void Open();
    void Open(KeyboardListener* listener);
    void Open(Function function);
    // Opens and runs the event loop until the input ends; the text (empty when cancelled).
    // `*answered`, when given, is set to true once an answer came, confirmed or cancelled.
    std::string OpenSynchro(bool* answered);
    void Close();
    bool IsOpened() const;
    int GetHeight() const;

    void OnOpened();
    void OnTextEntered(const std::string& text);
    void OnClosed(bool cancelled);

private:
    friend class KeyboardListener;
    static int keyboardHandler(char* text);
    void Forget(KeyboardListener* listener);
    void DropOneShots();
    // Calls `call` on every listener in map order; a listener removed by an earlier call of the
    // same round is skipped.
    void ForEachListener(const std::function<void(KeyboardListener*)>& call);

    Flags<FLAGS> flags_;
    std::string title_;
    std::string enter_text_;
    std::map<KeyboardListener*, ListenerInfo> listeners_;
    char buffer_[2048];
    bool no_keyboard_buffer_ = false;

    static unsigned int counter;
    static Keyboard* keyboardInvoker;
    static std::string label;
};

}  // namespace keyboard
}  // namespace quorvel

// A function as a listener: called once per input, with (false, text) when confirmed and
// (true, "") when cancelled.
class QV_EXPORT KeyboardToFunctionProxy : public quorvel::keyboard::KeyboardListener {
public:
    explicit KeyboardToFunctionProxy(quorvel::keyboard::Keyboard::Function function)
        : function_(std::move(function)) {}
    void hasClosed(bool cancelled) override;
    void hasOpened() override {}
    void textEntered(std::string text) override;

private:
    quorvel::keyboard::Keyboard::Function function_;
};
