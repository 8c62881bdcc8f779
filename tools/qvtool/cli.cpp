#include "cli.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace qvtool {

Args::Args(std::vector<std::string> words) {
    for (auto& word : words) {
        if (word == "--help" || word == "-h") {
            help_ = true;
        } else {
            words_.push_back(std::move(word));
        }
    }
}

bool Args::Flag(const std::string& name) {
    bool found = false;
    for (auto it = words_.begin(); it != words_.end();) {
        if (*it == name) {
            found = true;
            it = words_.erase(it);
        } else {
            ++it;
        }
    }
    return found;
}

std::vector<std::string> Args::Options(const std::string& name) {
    std::vector<std::string> values;
    const std::string prefix = name + "=";
    for (auto it = words_.begin(); it != words_.end();) {
        if (*it == name) {
            if (std::next(it) == words_.end()) throw Failure(kUsage, name + " needs a value");
            values.push_back(*std::next(it));
            it = words_.erase(it, std::next(it, 2));
        } else if (it->rfind(prefix, 0) == 0) {
            values.push_back(it->substr(prefix.size()));
            it = words_.erase(it);
        } else {
            ++it;
        }
    }
    return values;
}

std::optional<std::string> Args::Option(const std::string& name) {
    auto values = Options(name);
    if (values.empty()) return std::nullopt;
    return values.back();
}

std::optional<std::string> Args::NextOptional() {
    for (auto it = words_.begin(); it != words_.end(); ++it) {
        // A lone "-" is a value (standard input); "--x" is an option nobody asked for.
        if (it->size() > 1 && (*it)[0] == '-' && (*it)[1] == '-') continue;
        std::string word = *it;
        words_.erase(it);
        return word;
    }
    return std::nullopt;
}

std::string Args::Next(const std::string& what) {
    auto word = NextOptional();
    if (!word) throw Failure(kUsage, "missing " + what);
    return *word;
}

std::vector<std::string> Args::Rest() {
    std::vector<std::string> rest;
    rest.swap(words_);
    return rest;
}

void Args::Done() const {
    if (words_.empty()) return;
    const std::string& word = words_.front();
    bool option = word.size() > 1 && word[0] == '-';
    throw Failure(kUsage, (option ? "unknown option " : "unexpected argument ") + word);
}

namespace {

std::map<std::string, Command>& Registry() {
    static std::map<std::string, Command> commands;
    return commands;
}

}  // namespace

bool Register(Command command) {
    std::string name = command.name;
    Registry().emplace(std::move(name), std::move(command));
    return true;
}

const std::map<std::string, Command>& Commands() {
    return Registry();
}

long long ParseInteger(const std::string& text, const std::string& what) {
    errno = 0;
    char* end = nullptr;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE) {
        throw Failure(kUsage, what + " must be a whole number, not '" + text + "'");
    }
    return value;
}

std::string ReadAllInput() {
    std::ostringstream text;
    text << std::cin.rdbuf();
    return text.str();
}

std::string ReadFileOrFail(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kNotFound, "can't read " + path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// ---- Times ------------------------------------------------------------------------------

// "215", "3:35" or "1:02:03".
int32_t ParseSeconds(const std::string& text, const std::string& what) {
    long long seconds = 0;
    std::istringstream parts(text);
    std::string part;
    int count = 0;
    while (std::getline(parts, part, ':')) {
        if (++count > 3 || part.empty()) throw Failure(kUsage, "bad " + what + ": " + text);
        long long value = ParseInteger(part, what);
        if (value < 0 || (count > 1 && value > 59))
            throw Failure(kUsage, "bad " + what + ": " + text);
        seconds = seconds * 60 + value;
    }
    if (count == 0 || seconds > INT32_MAX) throw Failure(kUsage, "bad " + what + ": " + text);
    return static_cast<int32_t>(seconds);
}

}  // namespace qvtool
