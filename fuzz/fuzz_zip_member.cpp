// Zip archives as the player and the audiobook reader open them: QVZipManager over a file of
// the card, the list of members, then each member opened by name and read to its end, in reads
// and skips of varying size, with its size and position asked on the way.

#include <list>
#include <string>
#include <vector>

#include "common_utilities/old_zip/qv_zip_manager.h"
#include "fuzz_support.h"

using quorvel::QVZipManager;

namespace {

constexpr size_t kMembersRead = 32;

// Reads the open member to its end; the position never runs past the size the archive claims
// for a member that read without error.
void ReadMember(QVZipManager& zip, size_t step) {
    const long size = zip.GetCurrentFileSize();
    std::vector<char> buffer(step);
    long done = 0;
    for (bool skip = false;; skip = !skip) {
        const long got = skip ? zip.Skip(step) : zip.Read(buffer.data(), buffer.size());
        if (got <= 0) break;
        done += got;
        QVFUZZ_CHECK(zip.Tell() >= 0);
    }
    QVFUZZ_CHECK(size < 0 || done <= size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = "/tmp/fuzz-archive.zip";
    qvfuzz::WriteFile(path, data, size);
    QVZipManager zip;
    if (zip.Open(path, "") != quorvel::QVZM_OK) return 0;
    std::list<std::string> names;
    zip.GetFilesList(names);
    size_t index = 0;
    for (const std::string& name : names) {
        if (index++ == kMembersRead) break;
        if (zip.ChangeFile(name) == quorvel::QVZM_OK) ReadMember(zip, 1 + (index * 977) % 8192);
    }
    // The other way in: archive and member named at once, as a stream over a member is made.
    if (!names.empty()) {
        QVZipManager direct;
        if (direct.Open(path, names.back()) == quorvel::QVZM_OK) ReadMember(direct, 4096);
    }
    return 0;
}
