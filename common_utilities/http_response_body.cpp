#include "common_utilities/http_response_body.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <exception>

namespace quorvel {
namespace utilities {
namespace {

constexpr uintptr_t kLargePage = 2u << 20;
// glibc gives every block from 32 MiB up a mapping of its own (16 MiB on 32-bit systems), so
// the advice never reaches memory that later serves other allocations.
constexpr size_t kAdviseFrom = 32u << 20;
// A reservation left unused by more than this, and by more than the body itself, is given back.
constexpr size_t kUnusedKept = 1u << 20;

void AdviseLargePages(char* data, size_t bytes) {
#ifdef MADV_HUGEPAGE
    if (bytes < kAdviseFrom) return;
    auto start = reinterpret_cast<uintptr_t>(data);
    uintptr_t begin = (start + kLargePage - 1) & ~(kLargePage - 1);
    uintptr_t end = (start + bytes) & ~(kLargePage - 1);
    // Only a hint: a kernel without large pages refuses it, and the buffer serves all the same.
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    static_cast<void>(data);
    static_cast<void>(bytes);
#endif
}

// Moves `*out` into a buffer of `capacity` bytes that is advised before anything touches it.
// Throws as a vector does when memory runs out, leaving `*out` as it was.
void Regrow(std::vector<char>* out, size_t capacity) {
    std::vector<char> bigger;
    bigger.reserve(capacity);
    AdviseLargePages(bigger.data(), capacity);
    bigger.insert(bigger.end(), out->begin(), out->end());
    out->swap(bigger);
}

}  // namespace

ResponseBody::ResponseBody(std::vector<char>* out, size_t reserve_limit)
    : out_(out), reserve_limit_(reserve_limit) {}

void ResponseBody::Announce(long long length) {
    if (length < 0 || static_cast<unsigned long long>(length) > reserve_limit_) return;
    const size_t wanted = out_->size() + static_cast<size_t>(length) + 1;  // + the terminator
    if (wanted <= out_->capacity()) return;
    try {
        Regrow(out_, wanted);
        reserved_ = true;
    } catch (const std::exception&) {
        // The body then grows as it comes, and fails only if it really doesn't fit.
    }
}

bool ResponseBody::Append(const char* data, size_t count) {
    return AppendTo(out_, data, count);
}

void ResponseBody::Finish() {
    if (!reserved_) return;
    const size_t unused = out_->capacity() - out_->size();
    if (unused > kUnusedKept && unused > out_->size()) out_->shrink_to_fit();
}

bool ResponseBody::AppendTo(std::vector<char>* out, const char* data, size_t count) {
    try {
        const size_t needed = out->size() + count;
        if (needed > out->capacity()) Regrow(out, std::max(needed, 2 * out->capacity()));
        out->insert(out->end(), data, data + count);
        return true;
    } catch (const std::exception&) {
        // An exception must not cross libcurl, which calls the writer; a failed write ends the
        // transfer with an error instead.
        return false;
    }
}

}  // namespace utilities
}  // namespace quorvel
