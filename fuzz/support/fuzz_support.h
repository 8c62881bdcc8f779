// What every fuzz target shares: the set-up of the process and the ways an input reaches the
// library. A target defines LLVMFuzzerTestOneInput only; LLVMFuzzerInitialize is ours (below).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvfuzz {

// A target that needs more than the common set-up (a network of its own, a server) defines this;
// it runs once, before the first input, after the checks and the silencing of the log.
void SetUp() __attribute__((weak));

// The input as text, zero bytes included.
std::string Text(const uint8_t* data, size_t size);

// Writes the input to `path` (replacing what is there) so that the library reads it the way it
// reads a file of the device. Ends the process when the file can't be written: a target that
// silently fed nothing would report clean runs.
void WriteFile(const std::string& path, const uint8_t* data, size_t size);
void WriteFile(const std::string& path, const std::string& text);

// Ends the process with a message: for set-up failures, which are no finding of the fuzzer.
[[noreturn]] void Fail(const std::string& what);

// A property of the library that an input broke: reported and aborted, so that the fuzzer keeps
// the input like any other crash.
[[noreturn]] void Violated(const char* condition, const char* file, int line);

}  // namespace qvfuzz

#define QVFUZZ_CHECK(condition) \
    ((condition) ? static_cast<void>(0) : qvfuzz::Violated(#condition, __FILE__, __LINE__))

namespace qvfuzz {}  // namespace qvfuzz
