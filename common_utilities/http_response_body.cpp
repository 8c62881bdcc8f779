#include "common_utilities/http_response_body.h"

#include <curl/curl.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <exception>

namespace quorvel {
namespace utilities {
namespace {

constexpr uintptr_t kPage = 4096;  // the smallest page of the systems the library runs on
constexpr uintptr_t kLargePage = 2u << 20;
// From here a buffer holds at least one whole large page. A buffer this size may come from the
// heap rather than a mapping of its own (glibc maps every block from 32 MiB, and smaller ones
// until a block of their size was freed); the advice costs no memory there either: the body
// fills every page it reserved (one that ends far short gives the room back), pages the heap
// had touched before keep their size, and the advised range leaves with the heap's top when it
// shrinks.
constexpr size_t kAdviseFrom = 4u << 20;
// A reservation left unused by more than this, and by more than the body itself, is given back.
constexpr size_t kUnusedKept = 1u << 20;
// How far ahead of the arrived bytes the pages of a buffer are faulted in.
constexpr size_t kPrefaultAhead = 1u << 20;

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

uintptr_t PageDown(uintptr_t address) {
    return address & ~(kPage - 1);
}

uintptr_t PageUp(uintptr_t address) {
    return PageDown(address + kPage - 1);
}

// Has the kernel fault in, writable, the whole pages inside [begin, end): what the first write
// to each would do, without the trap. A kernel that can't (before 5.14) is asked no more; the
// pages then fault one by one as before.
void Prefault(const char* begin, const char* end) {
#ifdef MADV_POPULATE_WRITE
    static std::atomic<bool> unsupported{false};
    uintptr_t from = PageUp(reinterpret_cast<uintptr_t>(begin));
    uintptr_t to = PageDown(reinterpret_cast<uintptr_t>(end));
    if (to <= from || unsupported.load(std::memory_order_relaxed)) return;
    if (madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) != 0 &&
        errno == EINVAL) {
        unsupported.store(true, std::memory_order_relaxed);
    }
#else
    static_cast<void>(begin);
    static_cast<void>(end);
#endif
}

// Moves `*out` into a buffer of `capacity` bytes that is advised before anything touches it.
// Throws as a vector does when memory runs out, leaving `*out` as it was.
void Regrow(std::vector<char>* out, size_t capacity) {
    std::vector<char> bigger;
    bigger.reserve(capacity);
    AdviseLargePages(bigger.data(), capacity);
    Prefault(bigger.data(), bigger.data() + out->size());
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
    try {
        const size_t needed = out_->size() + count;
        if (needed > out_->capacity()) Regrow(out_, std::max(needed, 2 * out_->capacity()));
        PrefaultAhead(count);
        out_->insert(out_->end(), data, data + count);
        return true;
    } catch (const std::exception&) {
        return false;  // see AppendTo
    }
}

// Called with room for `count` more bytes: makes sure they, and up to kPrefaultAhead bytes after
// them, are faulted in.
void ResponseBody::PrefaultAhead(size_t count) {
    const char* buffer = out_->data();
    const char* end = buffer + out_->size() + count;
    if (buffer != prefaulted_buffer_) {  // a new buffer: what it holds was faulted by the copy
        prefaulted_buffer_ = buffer;
        prefaulted_end_ = buffer + out_->size();
    }
    if (end <= prefaulted_end_) return;
    const char* ahead = std::min(buffer + out_->capacity(), end + kPrefaultAhead);
    Prefault(prefaulted_end_, ahead);
    prefaulted_end_ = ahead;
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

size_t BodySink::Write(char* data, size_t size, size_t nmemb, void* user) {
    auto* sink = static_cast<BodySink*>(user);
    if (!sink->announced) {
        sink->announced = true;
        curl_off_t length = -1;
        if (curl_easy_getinfo(sink->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK)
            length = -1;
        sink->body.Announce(length);
    }
    size_t count = size * nmemb;
    return sink->body.Append(data, count) ? count : 0;
}

}  // namespace utilities
}  // namespace quorvel
