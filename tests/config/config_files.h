// Configuration files as other processes of the device see and change them.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "child_process.h"
#include "moorglass.h"

namespace qvtest {

inline std::string FileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteFileText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

inline bool FileExists(const std::string& path) {
    return std::ifstream(path).good();
}

using Entries = std::vector<std::pair<std::string, std::string>>;

// Another process writes the entries through the platform, with one save after each, the way a
// busy settings application does. A value starting with "secret:" is written as a secret.
inline void SaveInAnotherProcess(const std::string& path, const Entries& entries) {
    auto result = RunInChild([&path, &entries] {
        iconfig* cfg = OpenConfig(path.c_str(), 0);
        if (!cfg) return 1;
        for (const auto& [key, value] : entries) {
            if (value.rfind("secret:", 0) == 0) {
                WriteSecret(cfg, key.c_str(), value.substr(7).c_str());
            } else {
                WriteString(cfg, key.c_str(), value.c_str());
            }
            if (SaveConfig(cfg) != 0) return 2;
        }
        CloseConfigNoSave(cfg);
        return 0;
    });
    ASSERT_TRUE(result.Succeeded()) << result.Describe();
}

}  // namespace qvtest
