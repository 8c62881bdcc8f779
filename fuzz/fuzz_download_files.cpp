// The files a download leaves on disk, as the next attempt finds them: a progress record of any
// length and content (another process, a crash, a full card wrote it), a data file of some length,
// and the expected size the owner passes in. Then pieces of the body arrive, and the finished file
// is given a free name. The resume point must lie within the data and the record, a piece must
// move it by its length, and the final name must be free.

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "common_utilities/downloader.h"
#include "fuzz_support.h"

namespace {

using namespace quorvel::utilities;

const std::string kFolder = "/tmp/downloads";
const std::string kData = kFolder + "/book.epub.downloading";

off_t Length(int fd) {
    struct stat st {};
    QVFUZZ_CHECK(::fstat(fd, &st) == 0);
    return st.st_size;
}

void Resume(FuzzedDataProvider& input) {
    std::string record = input.ConsumeRandomLengthString(16);
    std::string data(input.ConsumeIntegralInRange<size_t>(0, 4096), 'x');
    // Small sizes only: the space is reserved for real, on a file system in memory.
    off_t expected = input.ConsumeIntegralInRange<off_t>(0, 64 * 1024);
    qvfuzz::WriteFile(kData + ".progress", record);
    qvfuzz::WriteFile(kData, data);

    Downloader downloader;
    DownloadContext context;
    context.downloader = &downloader;
    // The folder is writable and has room: whatever the record says, the download must be able
    // to go on (from its resume point, or from the start).
    QVFUZZ_CHECK(prepareContext(kData, expected, context) == 0);

    ProgressFile::Data& saved = context.progress.data();
    off_t limit = saved.total != 0 ? saved.total : expected;
    off_t position = ::lseek(context.file_, 0, SEEK_CUR);
    QVFUZZ_CHECK(saved.offset >= 0 && saved.offset == position);
    QVFUZZ_CHECK(position <= static_cast<off_t>(data.size()) || position == 0);
    QVFUZZ_CHECK(position <= limit || position == 0);

    struct stat st {};
    QVFUZZ_CHECK(::stat((kData + ".progress").c_str(), &st) == 0 && st.st_size >= 8);

    std::string piece = input.ConsumeRandomLengthString(1024);
    int32_t before = saved.offset;
    size_t taken = Downloader::WriteFunction(piece.data(), 1, piece.size(), &context);
    QVFUZZ_CHECK(taken == piece.size());
    QVFUZZ_CHECK(saved.offset == before + static_cast<int32_t>(piece.size()));
    QVFUZZ_CHECK(Length(context.file_) >= saved.offset);
}

void FinalName(FuzzedDataProvider& input) {
    std::string name = input.ConsumeRemainingBytesAsString();
    std::string path = kFolder + "/" + name;
    std::string first = get_final_name(path);
    struct stat st {};
    QVFUZZ_CHECK(::stat(first.c_str(), &st) != 0);
    // Taken once, the name must move on to another free one.
    int fd = ::open(first.c_str(), O_CREAT | O_WRONLY, 0644);
    if (fd < 0) return;  // a name no file can have: nothing to take
    ::close(fd);
    std::string second = get_final_name(path);
    QVFUZZ_CHECK(second != first && ::stat(second.c_str(), &st) != 0);
    ::unlink(first.c_str());
}

}  // namespace

void qvfuzz::SetUp() {
    if (::mkdir(kFolder.c_str(), 0777) != 0) Fail("can't make " + kFolder);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Resume(input);
    FinalName(input);
    return 0;
}
