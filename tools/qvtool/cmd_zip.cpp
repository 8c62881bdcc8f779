// qvtool zip ...: the members of a zip archive through the library's reader, as the player and
// the tag reader see them.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/old_zip/qv_zip_manager.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::QVZipManager;

// Opens the archive; a missing file is kNotFound, a file that is no archive a failure.
void OpenArchive(QVZipManager& zip, const std::string& archive) {
    struct stat info {};
    if (::stat(archive.c_str(), &info) != 0) throw Failure(kNotFound, "no archive " + archive);
    if (S_ISDIR(info.st_mode)) throw Failure(kFailed, archive + " is a directory");
    if (zip.Open(archive, "") != quorvel::QVZM_OK)
        throw Failure(kFailed, archive + " is not a zip archive, or is damaged");
}

int RunList(Args& args) {
    std::string archive = args.Next("ARCHIVE");
    args.Done();
    QVZipManager zip;
    OpenArchive(zip, archive);
    std::list<std::string> names;
    if (zip.GetFilesList(names) != quorvel::QVZM_OK)
        throw Failure(kFailed, "can't read the directory of " + archive);
    for (const auto& name : names)
        std::cout << name << '\n';
    std::cout << "(" << names.size() << (names.size() == 1 ? " entry" : " entries") << ")\n";
    return kOk;
}

int RunCat(Args& args) {
    std::string archive = args.Next("ARCHIVE");
    std::string entry = args.Next("ENTRY");
    args.Done();
    QVZipManager zip;
    OpenArchive(zip, archive);
    if (entry.empty() || zip.ChangeFile(entry) != quorvel::QVZM_OK)
        throw Failure(kNotFound, "no entry " + entry + " in " + archive);

    const long size = zip.GetCurrentFileSize();
    // The bar only where someone watches: the member itself goes to standard output.
    std::unique_ptr<Progress> progress;
    if (::isatty(STDERR_FILENO) && size > (16L << 20))
        progress = std::make_unique<Progress>("extracting", size, Progress::Unit::kBytes);
    std::vector<char> buffer(256 * 1024);
    uint64_t done = 0;
    for (;;) {
        const int got = zip.Read(buffer.data(), buffer.size());
        if (got < 0)
            throw Failure(kFailed,
                          entry + " is damaged (minizip error " + std::to_string(got) + ")");
        if (got == 0) break;
        if (std::fwrite(buffer.data(), 1, static_cast<size_t>(got), stdout) !=
            static_cast<size_t>(got))
            throw Failure(kFailed, "can't write to standard output");
        done += static_cast<uint64_t>(got);
        if (progress) progress->Update(done);
    }
    if (progress) progress->Finish();
    std::fflush(stdout);
    return kOk;
}

const bool registered_ls = Register(
    {"zip ls", "the names of the members of a zip archive",
     "usage: qvtool zip ls ARCHIVE\n"
     "Lists the names of every member of ARCHIVE in the archive's order, folders included\n"
     "(they end in \"/\"). Exit code 3 when ARCHIVE does not exist, 1 when it is not a zip\n"
     "archive or its directory is damaged.\n",
     RunList});

const bool registered_cat = Register(
    {"zip cat", "one member of a zip archive to standard output",
     "usage: qvtool zip cat ARCHIVE ENTRY\n"
     "Writes the decompressed bytes of ENTRY to standard output, reading it in pieces (any size\n"
     "takes the same little memory). ENTRY matches without regard to case, as the player finds\n"
     "it; of names that differ only in case the first in the archive wins. Exit code 3 when\n"
     "ARCHIVE or ENTRY does not exist, 1 when the archive or the member is damaged.\n",
     RunCat});

}  // namespace
}  // namespace qvtool
