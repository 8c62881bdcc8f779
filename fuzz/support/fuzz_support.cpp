#include "fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "moorglass_host.h"
#include "sandbox_check.h"

namespace qvfuzz {

std::string Text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) Fail("can't write " + path);
}

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
    WriteFile(path, Text(data, size));
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "fuzz set-up: %s\n", what.c_str());
    std::_Exit(2);
}

void Violated(const char* condition, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: property broken: %s\n", file, line, condition);
    std::abort();
}

}  // namespace qvfuzz

// Targets write to the device's paths, so they run inside the device sandbox only (./run fuzz
// starts them there). The library's log lines would cost more time than the inputs themselves and
// bury the sanitizers' reports: only those reach the standard error stream.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** argv) {
    if (!qvtest::InsideSandbox())
        qvfuzz::Fail(std::string((*argv)[0]) +
                     " runs inside the device sandbox only; use ./run fuzz, or "
                     "build/fuzz/bin/devsandbox -- " +
                     (*argv)[0]);
    qvhost_set_log_level(0);
    if (qvfuzz::SetUp) qvfuzz::SetUp();
    return 0;
}
