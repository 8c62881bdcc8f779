// membuf: a fixed block of memory as a stream buffer, both to read from and to write into, so
// that the stream forms of a bitmap can be built in memory. It does not own the block; writing
// past its end fails the stream instead of growing anything.
#pragma once

#include <cstddef>
#include <streambuf>

namespace quorvel {
namespace utilities {

class membuf : public std::streambuf {
public:
    membuf(char* block, size_t size) {
        setg(block, block, block + size);
        setp(block, block + size);
    }
    // Bytes written so far.
    size_t written() const { return static_cast<size_t>(pptr() - pbase()); }
};

}  // namespace utilities
}  // namespace quorvel
