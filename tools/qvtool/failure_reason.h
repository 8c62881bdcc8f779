// Why a library call failed, in words a user can act on. The library reports by result code and
// log line; while a FailureReason lives it keeps the last error line of the library, and turns a
// libcurl code quoted in it into libcurl's own description.
#pragma once

#include <mutex>
#include <regex>
#include <string>

namespace qvtool {

class FailureReason {
public:
    // `curl_code_pattern`: a regular expression whose first group is the libcurl code in the
    // library's log line, e.g. R"(with curl error \[(\d+)\])".
    explicit FailureReason(std::string curl_code_pattern);
    ~FailureReason();
    FailureReason(const FailureReason&) = delete;
    FailureReason& operator=(const FailureReason&) = delete;

    // "Couldn't connect to server (curl code 7)", the log line itself, or a pointer to --verbose.
    std::string Describe() const;

private:
    static void Sink(void* user, int level, const char* module, const char* file, int line,
                     const char* function, const char* message);

    std::regex curl_code_;
    mutable std::mutex mutex_;  // the library may log from its worker threads
    std::string last_error_;
};

}  // namespace qvtool
