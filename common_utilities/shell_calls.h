// Requests to the device shell through the mailbox of the shared control block (`mgmpc`): a
// system message, a dialog, opening a book. The shell serves one request at a time; a caller
// waits (without a time limit) until the mailbox is free, claims it, writes the body, and waits
// for the shell's progress or answer. Calls block the calling thread; keep them off threads
// that the shell's own answer depends on.
#pragma once

#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

// Shows `text` under `title` for `timeout`; returns once the shell has taken it.
QV_EXPORT void SystemMessage(int icon, const std::string& title, const std::string& text,
                             int timeout);
// Asks with two buttons; the shell's answer (MG_UIANSWER_BUTTON1, _BUTTON2, _NONE), -1 without
// a shell.
QV_EXPORT int SystemDialog(int icon, const std::string& title, const std::string& text,
                           const std::string& button1, const std::string& button2);
// Asks the shell to open the book at `path` in its reader.
QV_EXPORT void SystemOpenBook(const std::string& path);

}  // namespace utilities
}  // namespace quorvel
