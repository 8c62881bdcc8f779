// qvtool hash ...: the library's hash helpers (LomUtilities).

#include <sys/stat.h>

#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "common_utilities/lom_utilities.h"

namespace qvtool {
namespace {

using quorvel::utilities::LomUtilities;

// "HEX  FILE" for every file, as sha1sum and md5sum print; a file that can't be read is named on
// the error stream and the others go on.
int HashFiles(Args& args, std::string (*hash)(const std::string&)) {
    std::vector<std::string> files;
    while (auto file = args.NextOptional())
        files.push_back(*file);
    args.Done();
    if (files.empty()) throw Failure(kUsage, "missing FILE");
    int code = kOk;
    for (const auto& file : files) {
        struct stat info {};
        if (::stat(file.c_str(), &info) != 0) {
            std::cerr << "qvtool: hash: no file " << file << '\n';
            code = kNotFound;
            continue;
        }
        std::string digest = hash(file);
        if (digest.empty()) {
            std::cerr << "qvtool: hash: can't read " << file << '\n';
            if (code == kOk) code = kFailed;
            continue;
        }
        std::cout << digest << "  " << file << '\n';
    }
    return code;
}

int RunSha1(Args& args) {
    if (auto text = args.Option("--text")) {
        args.Done();
        std::cout << LomUtilities::GetSha1(*text) << '\n';
        return kOk;
    }
    return HashFiles(args, &LomUtilities::GetFileSha1);
}

int RunMd5Part(Args& args) {
    return HashFiles(args, &LomUtilities::GetPartialFileMd5);
}

// TEXT from the command line (a line feed follows the result), or standard input as it stands.
int Transform(Args& args, std::string (*transform)(const std::string&)) {
    auto text = args.NextOptional();
    args.Done();
    if (text) {
        std::cout << transform(*text) << '\n';
    } else {
        std::cout << transform(ReadAllInput());
    }
    return kOk;
}

const char* const kScrambleHelp =
    "Without TEXT standard input is used and written back byte for byte, so that\n"
    "  qvtool hash scramble < a | qvtool hash unscramble  gives a back.\n"
    "Only the 94 printable ASCII characters change (each through a fixed table, shifted by its\n"
    "position); blanks, line ends and non-ASCII characters pass unchanged. Scrambling hides\n"
    "text from a casual look; it is not encryption.\n";

const bool registered_sha1 =
    Register({"hash sha1", "SHA-1 of files or of a text, as 40 hex digits",
              "usage: qvtool hash sha1 FILE...\n"
              "       qvtool hash sha1 --text TEXT\n"
              "Prints the SHA-1 digest of each FILE as sha1sum does (\"HEX  FILE\"), or of TEXT.\n"
              "Exit code 3 when a FILE does not exist, 1 when one can't be read.\n",
              RunSha1});

const bool registered_md5 = Register(
    {"hash md5part", "fast fingerprint of large files: MD5 of their head and tail",
     "usage: qvtool hash md5part FILE...\n"
     "Prints for each FILE the MD5 digest of its first 64 KiB followed by its last 64 KiB (of\n"
     "the whole file up to 128 KiB): the same as\n"
     "  { head -c 65536 FILE; tail -c 65536 FILE; } | md5sum\n"
     "Books of one format share their first bytes, and edits change their tail, so both ends\n"
     "tell them apart, at the cost of two small reads whatever the size.\n"
     "Exit code 3 when a FILE does not exist, 1 when one can't be read.\n",
     RunMd5Part});

const bool registered_scramble =
    Register({"hash scramble", "scramble a text through the library's character table",
              std::string("usage: qvtool hash scramble [TEXT]\n") + kScrambleHelp,
              [](Args& args) { return Transform(args, &LomUtilities::Scramble); }});

const bool registered_unscramble =
    Register({"hash unscramble", "undo hash scramble",
              std::string("usage: qvtool hash unscramble [TEXT]\n") + kScrambleHelp,
              [](Args& args) { return Transform(args, &LomUtilities::Unscramble); }});

}  // namespace
}  // namespace qvtool
