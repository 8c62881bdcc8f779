// Captures the log lines of this process for the length of a scope.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace qvtest {

struct LogLine {
    int level;
    std::string module;  // empty for lines without a module
    std::string file;
    int line;
    std::string function;
    std::string message;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // Messages of the given level (0: any level), in order.
    std::vector<std::string> Messages(int level = 0) const;
    // Whether some line of `level` (0: any) has exactly this message.
    bool Has(int level, const std::string& message) const;
    // Whether some line of `level` (0: any) contains `fragment`.
    bool HasFragment(int level, const std::string& fragment) const;
    void Clear();

private:
    static void Sink(void* user, int level, const char* module, const char* file, int line,
                     const char* function, const char* message);

    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

// "[pid:<this process>]" followed by `rest`: the exact text of a library log line.
std::string PidLine(const std::string& rest);

}  // namespace qvtest
