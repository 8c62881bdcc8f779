#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace qvtool {

std::string FormatBytes(double bytes) {
    const char* units[] = {"B", "KB", "MB", "GB", "TB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

std::string FormatDuration(double seconds) {
    auto total = static_cast<long>(std::lround(std::max(0.0, seconds)));
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60,
                      total % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    }
    return text;
}

Progress::Progress(std::string label, uint64_t total, Unit unit)
    : label_(std::move(label)),
      total_(total),
      unit_(unit),
      terminal_(::isatty(STDERR_FILENO) == 1),
      start_(Clock::now()) {}

Progress::~Progress() {
    if (!finished_ && terminal_ && done_ > 0) std::fputc('\n', stderr);
}

std::string Progress::Render(uint64_t done) const {
    double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
    double fresh = done > base_ ? static_cast<double>(done - base_) : 0;
    double rate = elapsed > 0 ? fresh / elapsed : 0;
    auto amount = [this](double value) {
        return unit_ == Unit::kBytes ? FormatBytes(value) : std::to_string(std::llround(value));
    };
    std::string line = label_ + " ";
    if (total_ > 0) {
        double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
        constexpr int kWidth = 24;
        int filled = static_cast<int>(share * kWidth);
        line += "[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] ";
        char percent[16];
        std::snprintf(percent, sizeof percent, "%3d%% ", static_cast<int>(share * 100));
        line +=
            percent + amount(static_cast<double>(done)) + "/" + amount(static_cast<double>(total_));
    } else {
        line += amount(static_cast<double>(done));
    }
    if (elapsed > 0.2) {
        line += "  " + amount(rate) + (unit_ == Unit::kBytes ? "/s" : " per s");
        if (total_ > 0 && rate > 0 && done < total_) {
            line += "  " + FormatDuration(static_cast<double>(total_ - done) / rate) + " left";
        }
    }
    return line;
}

void Progress::Update(uint64_t done) {
    done_ = done;
    if (terminal_) {
        auto now = Clock::now();
        if (now - last_draw_ < std::chrono::milliseconds(100)) return;
        last_draw_ = now;
        std::fprintf(stderr, "\r%s\033[K", Render(done).c_str());
        return;
    }
    if (total_ == 0) return;
    int tenth = static_cast<int>(10 * std::min(done, total_) / total_);
    if (tenth == last_tenth_) return;
    last_tenth_ = tenth;
    std::fprintf(stderr, "%s\n", Render(done).c_str());
}

void Progress::Finish() {
    if (finished_) return;
    finished_ = true;
    if (terminal_) {
        std::fprintf(stderr, "\r%s\033[K\n", Render(done_).c_str());
    } else if (last_tenth_ != 10) {
        std::fprintf(stderr, "%s\n", Render(done_).c_str());
    }
}

}  // namespace qvtool
