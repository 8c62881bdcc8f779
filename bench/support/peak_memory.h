// Memory a piece of work adds to this process at its peak: the kernel's high-water mark of
// resident memory, which writing "5" to clear_refs sets back to the present size, less that size.
// What earlier runs left in the allocator is thus not counted against the next.
#pragma once

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace qvbench {

class PeakMemory {
public:
    PeakMemory() : start_(Read("VmRSS:")) { std::ofstream("/proc/self/clear_refs") << "5"; }
    double AddedMegabytes() const { return Read("VmHWM:") - start_; }

private:
    static double Read(const char* field) {
        std::ifstream status("/proc/self/status");
        std::string line;
        size_t length = std::strlen(field);
        while (std::getline(status, line)) {
            if (line.compare(0, length, field) == 0) {
                return std::strtod(line.c_str() + length, nullptr) / 1024.0;
            }
        }
        return 0;
    }

    double start_;
};

}  // namespace qvbench
