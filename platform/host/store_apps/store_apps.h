// The host's store, sign-in and cloud applications, and what tests and qvtool need to watch them.
//
// Four small programs stand in for the device's applications of a sign-in: "bookstore.app",
// "store-native-auth.app", "qvcloud_auth.app" and "login-scenario.app", installed in
// "/zelgrot/bin" of the device image. Each records its command line in the journal, rebuilds
// the sign-in machine from it, does its part (the stores write the partner's credentials, the
// cloud application signs in to the cloud), reports its step with Proceed and records what the
// machine answered. The machine starts the next one, so a scenario travels across real processes.
//
// What the user would answer is set beforehand, per step, in "auth-answers.cfg" of the host state
// directory. The journal is "auth-journal.log" there, one line per event, fields separated by tabs.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace storeapps {

// The applications, as BookStoreAuthConfigs starts them.
const std::vector<std::string>& AppNames();
constexpr const char* kAppDir = "/zelgrot/bin/";
// What makes the store sign in by itself (the store's own scenario, which has no command line
// form of the sign-in machine).
constexpr const char* kLoginFromStoreOption = "--login-from-store";

// ---- The journal ---------------------------------------------------------------------------
struct JournalEntry {
    std::string kind;  // start, scenario, proceed, ask, note, finished
    std::string app;
    std::vector<std::string> fields;
};
// start     the command line's arguments
// scenario  scenario, action, state after         (startScenario)
// proceed   step, result, action, state after     (Proceed)
// ask       the answer the user gave              (before Proceed(StepAskLogin, answer))
// note      what the application did, as text
// finished  nothing: started with the scenario over, the application just runs
void Record(const std::string& kind, const std::string& app,
            const std::vector<std::string>& fields);
std::vector<JournalEntry> ReadJournal();
void ClearJournal();
std::string JournalPath();
// One readable line.
std::string Describe(const JournalEntry& entry);
// The command line an application received: "bookstore.app --auth-state=1,1".
std::string CommandLine(const JournalEntry& start);

// ---- The answers -----------------------------------------------------------------------------
// The StepResult the application of `step` reports (0 unless set); step 6 is the user's answer
// to the question whether to sign in to the store.
void SetResult(int step, int result);
int ResultFor(int step);
// When on, the applications only record their command line and end: for watching single
// transitions of the machine.
void SetRecordOnly(bool on);
bool RecordOnly();
// The login the stores sign in with.
void SetLogin(const std::string& login);
std::string Login();
void ClearAnswers();

// ---- Following a scenario ----------------------------------------------------------------------
bool AnyAppRunning();
// Hands each new journal entry to `on_entry` until no application of the sign-in runs any more
// (each starts the next before it ends, so then the scenario is over). False on time-out.
bool FollowScenario(const std::function<void(const JournalEntry&)>& on_entry, int timeout_ms);

}  // namespace storeapps
