// The translation table of the host platform: "/zelgrot/share/lang/<language>.txt", key=value
// lines of UTF-8, one file per interface language, as the device image ships them. The language
// is the state block's (global.cfg's "language"); "pt_BR" looks in "pt_BR", then "pt", then
// English. Each file is read once per process; the texts handed out live as long as the process,
// so callers may keep the pointers.

#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "moorglass.h"

namespace {

constexpr const char* kLanguageDir = "/zelgrot/share/lang/";
constexpr const char* kFallbackLanguage = "en";

using Table = std::map<std::string, std::string>;

Table LoadTable(const std::string& language) {
    Table table;
    std::ifstream in(kLanguageDir + language + ".txt");
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        auto eq = line.find('=');
        if (line.empty() || line[0] == '#' || eq == std::string::npos) continue;
        table[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return table;
}

class Translations {
public:
    static Translations& Instance() {
        static Translations instance;
        return instance;
    }

    // Null when no table of the chain has the key.
    const char* Find(const std::string& language, const std::string& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::string& name : Chain(language)) {
            const Table& table = TableOf(name);
            auto it = table.find(key);
            if (it != table.end()) return it->second.c_str();
        }
        return nullptr;
    }

private:
    static std::vector<std::string> Chain(const std::string& language) {
        std::vector<std::string> chain;
        if (!language.empty()) chain.push_back(language);
        auto cut = language.find_first_of("_-");
        if (cut != std::string::npos) chain.push_back(language.substr(0, cut));
        chain.push_back(kFallbackLanguage);
        return chain;
    }

    // Tables are never dropped: their texts are handed out.
    const Table& TableOf(const std::string& language) {
        auto it = tables_.find(language);
        if (it == tables_.end()) it = tables_.emplace(language, LoadTable(language)).first;
        return it->second;
    }

    std::mutex mutex_;
    std::map<std::string, Table> tables_;
};

}  // namespace

extern "C" const char* GetLangText(const char* key) {
    if (!key) return "";
    const char* language = mgstate && mgstate->language ? mgstate->language : "";
    const char* text = Translations::Instance().Find(language, key);
    return text ? text : key;
}
