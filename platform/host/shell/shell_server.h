// The host shell: the device shell's side of the mailbox in the shared control block. It shows
// messages and dialogs on a terminal, answers dialogs from a script or a key press, opens (and
// records) books, and records every request in "shell.log" of the state directory, one line
// each, fields separated by tabs (a tab, line break or backslash inside a field written \t, \n,
// \\):
//     message ICON TITLE TEXT TIMEOUT
//     dialog ICON TITLE TEXT BUTTON1 BUTTON2 ANSWER      (ANSWER: 1, 2 or 0 for none)
//     open PATH RESULT                                   (RESULT: opened or missing)
//     bad QUERY                                          (a body that doesn't parse)
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace qvhost {

struct ShellRequest {
    int query = 0;
    int icon = 0;
    int timeout = 0;
    std::vector<std::string> texts;  // title, text[, button 1, button 2] or the book's path
};

// The request in a mailbox body of `size` bytes; false when the lengths don't match the strings
// (a writer that got it wrong must not make the shell read past the body).
bool ParseShellRequest(int query, const unsigned char* body, size_t size, ShellRequest* request);

class ShellServer {
public:
    // How a dialog is answered when the script has no more answers: 1 or 2 for a button, 0 for
    // none. `ask` (may be empty) is asked first, with the request, and gives one of those or -1.
    struct Options {
        std::deque<int> script;
        std::function<int(const ShellRequest&)> ask;
        int fallback_answer = 1;
        std::ostream* out = nullptr;  // where requests are shown; nowhere when null
    };

    explicit ShellServer(Options options);

    // Serves the request waiting in the mailbox, if there is one; true when it served one.
    bool ServeOnce();
    // Serves until `stop` is set, looking every few milliseconds. False without a mailbox.
    bool Run(const std::atomic<bool>& stop);

    static std::string LogPath();

private:
    int AnswerDialog(const ShellRequest& request);
    int OpenBook(const ShellRequest& request);
    void Show(const ShellRequest& request) const;

    Options options_;
};

// Asks on a terminal: shows the buttons and reads 1, 2 or 0 from `in`; -1 at its end.
int AskOnTerminal(const ShellRequest& request, std::istream& in, std::ostream& out);

// "1,2,0" as a script of answers; false for anything else.
bool ParseAnswerScript(const std::string& text, std::deque<int>* script);

// Splits a line of shell.log into its fields, undoing the escapes.
std::vector<std::string> SplitShellLogLine(const std::string& line);

}  // namespace qvhost
