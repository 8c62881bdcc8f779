#include "store_apps.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "host_state.h"
#include "moorglass.h"

namespace storeapps {

namespace {

std::string AnswersPath() {
    return qvhost::StatePath("auth-answers.cfg");
}

std::string Answer(const std::string& key, const std::string& fallback) {
    auto values = qvhost::ReadKeyValues(AnswersPath());
    auto it = values.find(key);
    return it == values.end() ? fallback : it->second;
}

void SetAnswer(const std::string& key, const std::string& value) {
    qvhost::EnsureStateDir();
    qvhost::UpdateKeyValue(AnswersPath(), key, value.c_str());
}

std::vector<std::string> Split(const std::string& line, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(line);
    std::string part;
    while (std::getline(in, part, separator))
        parts.push_back(part);
    return parts;
}

const char* ActionName(const std::string& action) {
    static const char* names[] = {"nothing more", "done", "exit, the store goes on",
                                  "ask the user"};
    int value = std::atoi(action.c_str());
    return value >= 0 && value < 4 ? names[value] : "?";
}

const char* ScenarioName(const std::string& scenario) {
    static const char* names[] = {"StartStore", "StoreLoginFromSettings",
                                  "StoreRegisterFromSettings", "CloudLogin", "LoginFromStore"};
    int value = std::atoi(scenario.c_str());
    return value >= 0 && value < 5 ? names[value] : "unknown scenario";
}

const char* StepName(const std::string& step) {
    static const char* names[] = {
        "start",         "store login", "store registration", "store hands over to the cloud",
        "cloud sign-in", "store",       "ask the user",       "finished"};
    int value = std::atoi(step.c_str());
    return value >= 0 && value < 8 ? names[value] : "unknown step";
}

const char* ResultName(const std::string& result) {
    static const char* names[] = {"ok", "skip", "cancel"};
    int value = std::atoi(result.c_str());
    return value >= 0 && value < 3 ? names[value] : "unknown result";
}

}  // namespace

const std::vector<std::string>& AppNames() {
    static const std::vector<std::string> names{"login-scenario.app", "bookstore.app",
                                                "store-native-auth.app", "qvcloud_auth.app"};
    return names;
}

// ---- The journal ---------------------------------------------------------------------------

std::string JournalPath() {
    return qvhost::StatePath("auth-journal.log");
}

void Record(const std::string& kind, const std::string& app,
            const std::vector<std::string>& fields) {
    std::string line = kind + '\t' + app;
    for (const std::string& field : fields)
        line += '\t' + field;
    line += '\n';
    qvhost::EnsureStateDir();
    // One write of a short line in append mode: lines of several processes never mix.
    int fd = ::open(JournalPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t written = ::write(fd, line.data(), line.size());
    (void)written;
    ::close(fd);
}

std::vector<JournalEntry> ReadJournal() {
    std::vector<JournalEntry> entries;
    std::ifstream in(JournalPath());
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> parts = Split(line, '\t');
        if (parts.size() < 2) continue;
        entries.push_back({parts[0], parts[1], {parts.begin() + 2, parts.end()}});
    }
    return entries;
}

void ClearJournal() {
    ::unlink(JournalPath().c_str());
}

std::string CommandLine(const JournalEntry& start) {
    std::string line = start.app;
    for (const std::string& argument : start.fields)
        line += ' ' + argument;
    return line;
}

std::string Describe(const JournalEntry& entry) {
    const auto& f = entry.fields;
    if (entry.kind == "start") return CommandLine(entry);
    if (entry.kind == "scenario" && f.size() == 3) {
        return std::string("  startScenario(") + ScenarioName(f[0]) + ") -> " + ActionName(f[1]) +
               ", state " + f[2];
    }
    if (entry.kind == "proceed" && f.size() == 4) {
        return std::string("  Proceed(") + StepName(f[0]) + ", " + ResultName(f[1]) + ") -> " +
               ActionName(f[2]) + ", state " + f[3];
    }
    if (entry.kind == "ask" && f.size() == 1)
        return std::string("  the user answers ") + ResultName(f[0]);
    if (entry.kind == "note" && f.size() == 1) return "  " + f[0];
    if (entry.kind == "finished") return "  the scenario is over; " + entry.app + " just runs";
    return "  " + entry.kind;
}

// ---- The answers -----------------------------------------------------------------------------

void SetResult(int step, int result) {
    SetAnswer("result." + std::to_string(step), std::to_string(result));
}

int ResultFor(int step) {
    return std::atoi(Answer("result." + std::to_string(step), "0").c_str());
}

void SetRecordOnly(bool on) {
    SetAnswer("record_only", on ? "1" : "0");
}

bool RecordOnly() {
    return Answer("record_only", "0") == "1";
}

void SetLogin(const std::string& login) {
    SetAnswer("login", login);
}

std::string Login() {
    return Answer("login", "reader@example.com");
}

void ClearAnswers() {
    ::unlink(AnswersPath().c_str());
}

// ---- Following a scenario ----------------------------------------------------------------------

bool AnyAppRunning() {
    for (const std::string& name : AppNames()) {
        if (FindTaskByAppName(name.c_str()) != -1) return true;
    }
    return false;
}

bool FollowScenario(const std::function<void(const JournalEntry&)>& on_entry, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t seen = 0;
    for (;;) {
        // Asked before reading: whatever a finished application wrote is then in the journal.
        const bool running = AnyAppRunning();
        std::vector<JournalEntry> entries = ReadJournal();
        for (; seen < entries.size(); ++seen)
            on_entry(entries[seen]);
        if (!running) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace storeapps
