#include "common_utilities/parameters.h"

#include <cctype>
#include <iterator>

namespace quorvel {
namespace utilities {
namespace {

constexpr char kQuote = '"';
constexpr const char* kBlanks = " \t";

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool IsOption(const std::string& token) {
    return !token.empty() && token[0] == '-';
}

}  // namespace

void Parameters::Set(int argc, const char* const* argv) {
    if (!argv) return;
    std::string line;
    for (int i = 0; i < argc; ++i) {
        if (!argv[i]) continue;
        if (!line.empty()) line += ' ';
        line += argv[i];
    }
    Set(line);
}

void Parameters::Set(const char* text) {
    if (!text) {
        tokens_.clear();
        return;
    }
    Set(std::string(text));
}

void Parameters::Set(const std::string& text) {
    tokens_.clear();
    std::string rest = LTrim(RTrim(text));
    while (!rest.empty()) {
        tokens_.push_back(NextToken(rest));
        rest = LTrim(RTrim(rest));
    }
    AnalizeString();
}

std::string Parameters::NextToken(std::string& rest) const {
    std::string token;
    const long end_quote = FindEndEscapedParameter(rest);
    if (rest[0] == kQuote && rest.size() >= 3 && end_quote != -1) {
        token = rest.substr(1, static_cast<size_t>(end_quote) - 1);
        rest.erase(0, static_cast<size_t>(end_quote) + 1);
        return token;
    }
    size_t end = rest.find_first_of(kBlanks);
    if (end != std::string::npos) {
        // A quoted part that spans the blank holds blanks of its own: the token runs on to the
        // first blank behind its closing quote.
        const size_t open = rest.find(kQuote);
        const size_t close = open < end ? rest.find(kQuote, open + 1) : std::string::npos;
        if (close != std::string::npos && close > end) end = rest.find_first_of(kBlanks, close);
    }
    if (end == std::string::npos) {
        token.swap(rest);
        return token;
    }
    token = rest.substr(0, end);
    rest.erase(0, end + 1);
    return token;
}

void Parameters::AnalizeString() {
    options_ = Break2OptPair(tokens_);
    arguments_ = Break2Arguments(tokens_);
}

Parameters::Options Parameters::Break2OptPair(const std::list<std::string>& tokens) const {
    Options options;
    for (auto it = tokens.begin(); it != tokens.end(); ++it) {
        const std::string& token = *it;
        if (!IsOption(token)) continue;
        if (token.size() < 3) {
            const char key = token.size() == 2 ? token[1] : '\0';
            auto next = std::next(it);
            const bool has_value = next != tokens.end() && !IsOption(*next);
            options.emplace(key, has_value ? *next : std::string());
            if (has_value) it = next;
            continue;
        }
        options.emplace(token[1], token.substr(2));
        for (size_t i = 2; i < token.size(); ++i)
            options.emplace(token[i], std::string());
    }
    return options;
}

std::list<std::string> Parameters::Break2Arguments(const std::list<std::string>& tokens) const {
    std::list<std::string> arguments;
    for (const auto& token : tokens) {
        if (token.empty() || IsOption(token)) continue;
        size_t start = 0;
        while (start < token.size()) {
            size_t end = token.find_first_of(kBlanks, start);
            if (end == std::string::npos) end = token.size();
            if (end > start) arguments.push_back(token.substr(start, end - start));
            start = end + 1;
        }
    }
    return arguments;
}

bool Parameters::IsOptPresent(char key) const {
    return options_.count(key) > 0;
}

std::string Parameters::GetOptArg(char key) const {
    auto it = options_.find(key);
    return it == options_.end() ? std::string() : it->second;
}

std::list<std::string> Parameters::GetAllOptArgs(char key) const {
    std::list<std::string> values;
    auto range = options_.equal_range(key);
    for (auto it = range.first; it != range.second; ++it)
        values.push_back(it->second);
    return values;
}

bool Parameters::IsArgumentPresent(const std::string& argument) const {
    for (const auto& present : arguments_) {
        if (present == argument) return true;
    }
    return false;
}

std::string Parameters::RTrim(const std::string& text) const {
    size_t end = text.size();
    while (end > 0 && IsSpace(text[end - 1]))
        --end;
    return text.substr(0, end);
}

std::string Parameters::LTrim(const std::string& text) const {
    size_t start = 0;
    while (start < text.size() && IsSpace(text[start]))
        ++start;
    return text.substr(start);
}

long Parameters::FindEndEscapedParameter(const std::string& text) const {
    const size_t first = text.find(kQuote);
    if (first == std::string::npos) return -1;
    const size_t second = text.find(kQuote, first + 1);
    return second == std::string::npos ? -1 : static_cast<long>(second);
}

}  // namespace utilities
}  // namespace quorvel
