// A progress line for long work, on the standard error stream: a bar, the share done, amounts,
// rate and time left. On a terminal it redraws in place a few times a second; otherwise it writes
// a line at every tenth of the way, so logs stay short.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qvtool {

class Progress {
public:
    enum class Unit { kItems, kBytes };

    // `total` 0: unknown, no bar or time left.
    Progress(std::string label, uint64_t total, Unit unit = Unit::kItems);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void SetTotal(uint64_t total) { total_ = total; }
    // Work that was done before this run (a resumed download): shown, but not counted in the
    // rate.
    void StartFrom(uint64_t done) { base_ = done; }
    void Update(uint64_t done);
    // Draws the last state and ends the line.
    void Finish();

    // The line as it would be drawn now (without the carriage return).
    std::string Render(uint64_t done) const;

private:
    using Clock = std::chrono::steady_clock;

    std::string label_;
    uint64_t total_;
    Unit unit_;
    bool terminal_;
    bool finished_ = false;
    uint64_t done_ = 0;
    uint64_t base_ = 0;
    int last_tenth_ = -1;
    Clock::time_point start_;
    Clock::time_point last_draw_{};
};

// "1.5 MB", "312 KB", "17 B".
std::string FormatBytes(double bytes);
// "1:05:03", "4:07".
std::string FormatDuration(double seconds);

}  // namespace qvtool
