// qvtool config get | set | delete | list | watch: the device's configuration files through the
// library's cache, as applications see them, changes of other processes included.

#include <signal.h>
#include <sys/stat.h>
#include <time.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <map>
#include <string>
#include <thread>

#include "cli.h"
#include "common_utilities/config.h"
#include "common_utilities/configuration_watch.h"
#include "table.h"

namespace qvtool {
namespace {

using quorvel::system::config::Config;
using quorvel::utilities::ConfigurationWatch;

constexpr const char* kMask = "********";

// A value as the tool shows it: secrets masked unless asked for.
struct Entry {
    std::string value;
    bool secret = false;

    bool operator==(const Entry& other) const {
        return value == other.value && secret == other.secret;
    }
};
using Entries = std::map<std::string, Entry>;

std::string Shown(const Entry& entry, bool show_secrets) {
    return entry.secret && !show_secrets ? kMask : entry.value;
}

void RequireFile(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw Failure(kNotFound, "no configuration file at " + path);
    if (S_ISDIR(st.st_mode)) throw Failure(kFailed, path + " is a directory");
}

void RequireDirectoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw Failure(kNotFound, "no directory " + dir + " for " + path);
    }
}

// What a configuration file can hold as a key: one line, no "=", no blanks at either end.
void RequireValidKey(const std::string& key) {
    bool valid = !key.empty() && key.find_first_of("=\r\n") == std::string::npos &&
                 key.front() != ' ' && key.front() != '\t' && key.back() != ' ' &&
                 key.back() != '\t';
    if (!valid) {
        throw Failure(kUsage, "'" + key +
                                  "' can't be a key: it must be one line without '=' and "
                                  "without blanks at either end");
    }
}

// Every entry of a handle: plain ones (unsaved writes over loaded values), then secrets.
Entries EntriesOf(iconfig* cfg, const std::string& prefix) {
    Entries entries;
    if (!cfg) return entries;
    for (ihash* table : {cfg->values, cfg->changes}) {
        for (auto& [key, value] : Config::HashFind(table, prefix))
            entries[key] = {value, false};
    }
    for (auto& [key, value] : Config::HashFind(cfg->secrets, prefix))
        entries[key] = {value, true};
    return entries;
}

// The entry of `key` as the cache knows it now, after picking up what others saved.
const Entry* Lookup(Config& config, const std::string& file, const std::string& key,
                    Entries& scratch) {
    config.ReadAllStrings(file, key);  // polls the watches and opens the file
    scratch = EntriesOf(config.GetConfig(file), key);
    auto found = scratch.find(key);
    return found == scratch.end() ? nullptr : &found->second;
}

int RunGet(Args& args) {
    bool secret = args.Flag("--secret");
    std::string file = args.Next("FILE");
    std::string key = args.Next("KEY");
    auto default_value = args.NextOptional();
    args.Done();
    RequireFile(file);

    Config& config = Config::GetInstance();
    Entries scratch;
    const Entry* entry = Lookup(config, file, key, scratch);
    if (entry && entry->secret && !secret) {
        throw Failure(kNotFound, key + " holds a secret in " + file + " (add --secret to read it)");
    }
    if (!entry) {
        if (!default_value) throw Failure(kNotFound, "no key " + key + " in " + file);
        std::cout << *default_value << '\n';
        return kOk;
    }
    std::cout << (secret ? config.ReadSecret(file, key, "") : config.ReadString(file, key, ""))
              << '\n';
    return kOk;
}

// Reads the file afresh, outside the cache, to tell whether the save reached it.
bool FileHolds(const std::string& file, const std::string& key, const Entry* expected) {
    iconfig* fresh = OpenConfig(file.c_str(), 0);
    Entries entries = EntriesOf(fresh, key);
    CloseConfigNoSave(fresh);
    auto found = entries.find(key);
    if (!expected) return found == entries.end();
    return found != entries.end() && found->second == *expected;
}

int RunSet(Args& args) {
    bool secret = args.Flag("--secret");
    std::string file = args.Next("FILE");
    std::string key = args.Next("KEY");
    std::string value = args.Next("VALUE");
    args.Done();
    RequireValidKey(key);
    RequireDirectoryOf(file);

    Config& config = Config::GetInstance();
    if (secret) {
        config.WriteSecret(file, key, value, true);
    } else {
        config.WriteString(file, key, value, true);
    }
    Entry expected{value, secret};
    if (!FileHolds(file, key, &expected)) throw Failure(kFailed, "could not save " + file);
    return kOk;
}

int RunDelete(Args& args) {
    std::string file = args.Next("FILE");
    std::string key = args.Next("KEY");
    args.Done();
    RequireFile(file);

    Config& config = Config::GetInstance();
    Entries scratch;
    if (!Lookup(config, file, key, scratch)) {
        throw Failure(kNotFound, "no key " + key + " in " + file);
    }
    config.DeleteString(file, key, true);
    if (!FileHolds(file, key, nullptr)) throw Failure(kFailed, "could not save " + file);
    return kOk;
}

int RunList(Args& args) {
    bool show_secrets = args.Flag("--secrets");
    std::string file = args.Next("FILE");
    std::string prefix = args.NextOptional().value_or("");
    args.Done();
    RequireFile(file);

    // The listing is the library's own merge of the three tables; the tables only tell which
    // entries are secrets.
    Config& config = Config::GetInstance();
    auto merged = config.ReadAllStrings(file, prefix);
    iconfig* cfg = config.GetConfig(file);
    auto secrets = Config::HashFind(cfg ? cfg->secrets : nullptr, prefix);
    Table table({"KEY", "VALUE"});
    for (const auto& [key, value] : merged)
        table.AddRow({key, Shown({value, secrets.count(key) != 0}, show_secrets)});
    table.Print(std::cout);
    std::cout << "(" << table.rows() << (table.rows() == 1 ? " key)\n" : " keys)\n");
    return kOk;
}

// ---- watch ----------------------------------------------------------------------------------

volatile std::sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) {
    g_interrupted = 1;
}

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string Now() {
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[16];
    strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// Prints what changed between two states of the file, one line per key.
void PrintChanges(const Entries& before, const Entries& after, bool show_secrets) {
    const std::string stamp = Now();
    for (const auto& [key, entry] : after) {
        auto old = before.find(key);
        if (old == before.end()) {
            std::cout << stamp << " + " << key << '=' << Shown(entry, show_secrets) << '\n';
        } else if (!(old->second == entry)) {
            std::cout << stamp << " ~ " << key << '=' << Shown(entry, show_secrets) << " (was "
                      << Shown(old->second, show_secrets) << ")\n";
        }
    }
    for (const auto& [key, entry] : before) {
        if (after.count(key) == 0) std::cout << stamp << " - " << key << '\n';
    }
    std::cout.flush();
}

class ChangePrinter : public ConfigurationWatch::Notify {
public:
    ChangePrinter(const ConfigurationWatch& watch, bool show_secrets)
        : watch_(watch), show_secrets_(show_secrets) {}

    void Start() { last_ = EntriesOf(watch_.GetConfig(), ""); }

    void Changed() override {
        Entries now = EntriesOf(watch_.GetConfig(), "");
        PrintChanges(last_, now, show_secrets_);
        last_ = std::move(now);
    }

private:
    const ConfigurationWatch& watch_;
    bool show_secrets_;
    Entries last_;
};

int RunWatch(Args& args) {
    using namespace std::chrono_literals;
    bool show_secrets = args.Flag("--secrets");
    std::string file = args.Next("FILE");
    args.Done();
    RequireFile(file);

    ConfigurationWatch watch;
    ChangePrinter printer(watch, show_secrets);
    if (watch.Init(file, &printer) != 0) throw Failure(kFailed, "can't watch " + file);
    printer.Start();
    CatchInterrupts();
    std::cerr << "watching " << file << " (Ctrl-C to stop)\n";
    // Saves that follow each other within one poll show as their net change.
    while (!g_interrupted) {
        watch.CheckChanges();
        std::this_thread::sleep_for(50ms);
    }
    return kInterrupted;
}

const bool registered_get =
    Register({"config get", "read a key of a configuration file",
              "usage: qvtool config get [--secret] FILE KEY [DEFAULT]\n"
              "Prints the value of KEY in the configuration file FILE, as applications read it (a\n"
              "change another process saved is seen). Without DEFAULT, a missing key is an error\n"
              "(exit code 3); so is a missing file.\n"
              "  --secret   read a secret value (they are refused otherwise)\n",
              RunGet});

const bool registered_set =
    Register({"config set", "write a key of a configuration file and save it",
              "usage: qvtool config set [--secret] FILE KEY VALUE\n"
              "Writes KEY=VALUE into FILE and saves it at once, creating the file if needed (its\n"
              "directory must exist). Applications watching the file see the change at their next\n"
              "read.\n"
              "  --secret   store VALUE as a secret: kept out of plain sight in the file\n",
              RunSet});

const bool registered_delete =
    Register({"config delete", "remove a key from a configuration file and save it",
              "usage: qvtool config delete FILE KEY\n"
              "Removes KEY (plain or secret) from FILE and saves it. A missing key or file is an\n"
              "error (exit code 3).\n",
              RunDelete});

const bool registered_list = Register(
    {"config list", "list the keys of a configuration file",
     "usage: qvtool config list [--secrets] FILE [PREFIX]\n"
     "Lists every key of FILE that begins with PREFIX (all without one) and its value, in\n"
     "key order. Secrets are shown as " +
         std::string(kMask) +
         ".\n"
         "  --secrets  show secret values in clear text\n",
     RunList});

const bool registered_watch =
    Register({"config watch", "print the changes of a configuration file as they are saved",
              "usage: qvtool config watch [--secrets] FILE\n"
              "Prints a line for every key that another process adds (+), changes (~) or removes\n"
              "(-) in FILE, as each save happens, until interrupted (Ctrl-C; exit code 130).\n"
              "Saves less than a twentieth of a second apart may show as their net change.\n"
              "  --secrets  show secret values in clear text\n",
              RunWatch});

}  // namespace
}  // namespace qvtool
