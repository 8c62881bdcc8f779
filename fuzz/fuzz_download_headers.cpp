// The response headers of a download as libcurl hands them over: one line at a time, in a buffer
// of exactly the line's length, redirects' headers included. Then the name the server suggests
// is made a file name in the download's folder, as an application that takes it does.

#include <sys/stat.h>

#include <memory>
#include <string>

#include "common_utilities/downloader.h"
#include "fuzz_support.h"

namespace {

using quorvel::utilities::Downloader;

// Each line in a heap block of its own size, so that a read past its end is seen.
void HandOver(Downloader& downloader, const std::string& line) {
    auto block = std::make_unique<char[]>(line.size());
    line.copy(block.get(), line.size());
    size_t taken = Downloader::WriteHeader(block.get(), 1, line.size(), &downloader);
    QVFUZZ_CHECK(taken == line.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text = qvfuzz::Text(data, size);
    Downloader downloader;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        HandOver(downloader, text.substr(start, end - start));
        start = end;
    }
    Downloader::StatusInfo status = downloader.GetStatus();
    QVFUZZ_CHECK(status.content_type.find_first_of("\r\n") == std::string::npos);
    QVFUZZ_CHECK(status.filename.find('"') == std::string::npos ||
                 status.filename.find("\\\"") != std::string::npos);

    if (!status.filename.empty()) {
        ::mkdir("/tmp/downloads", 0777);
        std::string name = quorvel::utilities::get_final_name("/tmp/downloads/" + status.filename);
        struct stat st {};
        QVFUZZ_CHECK(::stat(name.c_str(), &st) != 0);
    }
    // The finder on its own, with the whole input as one header.
    Downloader::FindFilename(text.c_str());
    return 0;
}
