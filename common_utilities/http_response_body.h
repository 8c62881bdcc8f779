// How the request runner collects a whole response body in the caller's vector.
//
// Filling a large vector costs little in copies and much in page faults: every fresh page of a
// buffer faults once, and a vector left to grow on its own passes through a buffer twice the size
// of the last one at every doubling. So a body whose length the server announced is reserved
// once, terminator included, and a body of unknown length grows in doublings the collector makes
// itself. Either way a buffer of 4 MiB or more is advised to the kernel for large pages, which
// fault once per 2 MiB instead of once per 4 KiB: on a virtual machine, 20 bodies of 10 MB then
// filled in less than half the time. And the pages a body is about to fill are faulted in by
// the kernel a megabyte at a time, ahead of the bytes: one call instead of one trap per page,
// which is most of what filling a large buffer costs on a virtual machine. Only memory the
// buffer already holds is touched, and never more than a megabyte beyond what has arrived.
//
// An announced length is a claim of the server. It is trusted only up to the runner's limit, and
// a body that ends far short of its claim gives the unused reservation back.
#pragma once

#include <cstddef>
#include <vector>

typedef void CURL;

namespace quorvel {
namespace utilities {

class ResponseBody {
public:
    // Collects into `*out`, behind what it holds; announced lengths above `reserve_limit` bytes
    // are not reserved.
    ResponseBody(std::vector<char>* out, size_t reserve_limit);

    // The length the response announced, negative when it announced none. Called once, before
    // the first Append.
    void Announce(long long length);
    // False, with nothing appended, when memory runs out.
    bool Append(const char* data, size_t count);
    // After the transfer, whatever its end: gives back a reservation that the body left mostly
    // unused.
    void Finish();

    // Appends to `*out`, growing it as above. False, with nothing appended, when memory runs out.
    static bool AppendTo(std::vector<char>* out, const char* data, size_t count);

private:
    std::vector<char>* out_;
    size_t reserve_limit_;
    bool reserved_ = false;
    // Where the pages faulted in ahead end, in the buffer that `prefaulted_buffer_` starts.
    const char* prefaulted_buffer_ = nullptr;
    const char* prefaulted_end_ = nullptr;

    void PrefaultAhead(size_t count);
};

// libcurl's writer for a whole body when it must also know the handle: the announced length is
// read when the first piece arrives, after any redirects, and reserved.
struct BodySink {
    CURL* curl;
    ResponseBody body;
    bool announced = false;

    // For CURLOPT_WRITEFUNCTION, with the sink as CURLOPT_WRITEDATA.
    static size_t Write(char* data, size_t size, size_t nmemb, void* sink);
};

}  // namespace utilities
}  // namespace quorvel
