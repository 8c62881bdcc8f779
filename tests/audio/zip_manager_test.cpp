// The zip reader on archives made at test time by the system's zip program and by Python's
// zipfile module: stored and deflated members, names that differ only in case, nested folders,
// a member of several hundred megabytes, damaged archives and files that are no archive.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <zlib.h>

#include <chrono>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "child_process.h"
#include "common_utilities/old_zip/qv_zip_manager.h"
#include "log_capture.h"
#include "moorglass.h"

namespace {

using quorvel::QVZipManager;
using qvtest::LogCapture;
using qvtest::PidLine;
using testing::ElementsAre;

void WriteFile(const std::string& path, const std::string& content) {
    mg_buildpath(path.c_str());
    std::ofstream(path, std::ios::binary) << content;
}

// Makes ARCHIVE with Python's zipfile from (name, method, content file) triples; method "stored"
// or "deflated".
const char kMakeWithPython[] = R"(
import sys, zipfile
archive, members = sys.argv[1], sys.argv[2:]
with zipfile.ZipFile(archive, 'w') as z:
    for i in range(0, len(members), 3):
        name, method, source = members[i:i + 3]
        kind = zipfile.ZIP_STORED if method == 'stored' else zipfile.ZIP_DEFLATED
        z.writestr(name, open(source, 'rb').read(), compress_type=kind)
)";

// As above, but with (name, method, content) triples: the contents go through files, since
// program arguments are limited in length.
void MakeWithPython(const std::string& archive, std::vector<std::string> members) {
    for (size_t i = 2; i < members.size(); i += 3) {
        const std::string source = archive + ".member" + std::to_string(i / 3);
        WriteFile(source, members[i]);
        members[i] = source;
    }
    std::vector<std::string> argv = {"python3", "-c", kMakeWithPython, archive};
    argv.insert(argv.end(), members.begin(), members.end());
    auto result = qvtest::RunProgram(argv);
    ASSERT_TRUE(result.Succeeded()) << result.Describe();
}

// A text long enough to span many reads and to compress, different in every line.
std::string Lines(int count, const std::string& word) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += word + " line " + std::to_string(i) + "\n";
    return text;
}

// The member read to its end in pieces of `piece` bytes.
std::string ReadAll(QVZipManager& zip, size_t piece) {
    std::string text;
    std::vector<char> buffer(piece);
    int got;
    while ((got = zip.Read(buffer.data(), buffer.size())) > 0)
        text.append(buffer.data(), static_cast<size_t>(got));
    EXPECT_EQ(0, got);
    return text;
}

std::list<std::string> Names(QVZipManager& zip) {
    std::list<std::string> names;
    EXPECT_EQ(quorvel::QVZM_OK, zip.GetFilesList(names));
    return names;
}

TEST(ZipManager, ReadsArchivesOfBothMakersMemberByMember) {
    const std::string big = Lines(20000, "deflated");
    // The zip program: a tree with a nested folder; big files deflated, tiny ones stored.
    WriteFile("/tmp/tree/top.txt", "top");
    WriteFile("/tmp/tree/d1/d2/deep.txt", big);
    auto zipped = qvtest::RunProgram({"sh", "-c", "cd /tmp/tree && zip -qr /tmp/prog.zip ."});
    ASSERT_TRUE(zipped.Succeeded()) << zipped.Describe();
    MakeWithPython("/tmp/py.zip", {"s.txt", "stored", Lines(3000, "stored"), "a/b/c.txt",
                                   "deflated", big, "empty.txt", "stored", ""});

    QVZipManager zip;
    ASSERT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/prog.zip", "d1/d2/deep.txt"));
    EXPECT_TRUE(zip.IsCurrentOpen());
    EXPECT_EQ(static_cast<long>(big.size()), zip.GetCurrentFileSize());
    EXPECT_EQ(big, ReadAll(zip, 1000));  // pieces that cut lines and inflate blocks
    EXPECT_EQ(static_cast<long>(big.size()), zip.Tell());
    EXPECT_THAT(Names(zip),
                testing::UnorderedElementsAre("top.txt", "d1/", "d1/d2/", "d1/d2/deep.txt"));
    EXPECT_EQ(quorvel::QVZM_OK, zip.Close());

    ASSERT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/py.zip", ""));
    EXPECT_FALSE(zip.IsCurrentOpen());
    EXPECT_THAT(Names(zip), ElementsAre("s.txt", "a/b/c.txt", "empty.txt"));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("s.txt"));
    const std::string stored = Lines(3000, "stored");
    std::string head(100, '\0');
    EXPECT_EQ(100, zip.Read(head.data(), head.size()));
    EXPECT_EQ(stored.substr(0, 100), head);
    EXPECT_EQ(1000, zip.Skip(1000));
    EXPECT_EQ(1100, zip.Tell());
    EXPECT_EQ(stored.substr(1100), ReadAll(zip, 4096));
    // Moving to another member and back starts it afresh.
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("a/b/c.txt"));
    EXPECT_EQ(5000, zip.Skip(5000));
    EXPECT_EQ(static_cast<long>(big.size() - 5000), zip.Skip(big.size()));  // past the end
    EXPECT_EQ(0, zip.Skip(10));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("s.txt"));
    EXPECT_EQ(stored, ReadAll(zip, 777));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("empty.txt"));
    EXPECT_EQ(0, zip.GetCurrentFileSize());
    EXPECT_EQ("", ReadAll(zip, 10));
}

TEST(ZipManager, NamesMatchWithoutRegardToCaseAndTheFirstWins) {
    MakeWithPython("/tmp/case.zip", {"Dir/Track.MP3", "stored", "first", "dir/track.mp3",
                                     "deflated", "second", "other.mp3", "stored", "other"});
    QVZipManager zip;
    ASSERT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/case.zip", "DIR/TRACK.mp3"));
    EXPECT_EQ("first", ReadAll(zip, 64));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("dir/track.mp3"));
    EXPECT_EQ("first", ReadAll(zip, 64));
    EXPECT_THAT(Names(zip), ElementsAre("Dir/Track.MP3", "dir/track.mp3", "other.mp3"));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("OTHER.Mp3"));
    EXPECT_EQ("other", ReadAll(zip, 64));
}

TEST(ZipManager, RefusesCallsOutOfStateWithTheirLines) {
    MakeWithPython("/tmp/a.zip", {"one.txt", "stored", "one", "two.txt", "deflated", "two"});
    LogCapture log;
    QVZipManager zip;
    char buffer[16];

    EXPECT_EQ(quorvel::QVZM_NOT_OPENED, zip.Close());
    EXPECT_EQ(quorvel::QVZM_NOT_OPENED, zip.Read(buffer, sizeof buffer));
    EXPECT_EQ(quorvel::QVZM_NOT_OPENED, zip.ChangeFile("one.txt"));
    std::list<std::string> names;
    EXPECT_EQ(quorvel::QVZM_NOT_OPENED, zip.GetFilesList(names));
    EXPECT_EQ(quorvel::QVZM_BAD_FILE_PATH, zip.Open("", "one.txt"));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"IsOpen()\", return(\"QVZM_NOT_OPENED\")]No "
                                   "opened file.")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"zip_filepath.empty()\", "
                                   "return(\"QVZM_BAD_FILE_PATH\")]Bad file path [].")));

    // A member that isn't there leaves the archive open without a member.
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Open("/tmp/a.zip", "three.txt"));
    EXPECT_TRUE(zip.IsOpen());
    EXPECT_FALSE(zip.IsCurrentOpen());
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"unzLocateFile(zip_f_, current_file.c_str(), 2) "
                                   "== UNZ_OK\", return(\"QVZM_CURRENT_NOT_OPENED\")]Can't open "
                                   "file in archive [three.txt].")));
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Read(buffer, sizeof buffer));
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Tell());
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Skip(3));
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.GetCurrentFileSize());
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"IsCurrentOpen()\", "
                                   "return(\"QVZM_CURRENT_NOT_OPENED\")]No opened current file.")));

    // A second archive is refused and the first kept.
    EXPECT_EQ(quorvel::QVZM_RESOURCE_BUSY, zip.Open("/tmp/other.zip", ""));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"IsOpen()\", return(\"QVZM_RESOURCE_BUSY\")]This "
                                   "object is busy by file [/tmp/a.zip], can't open file "
                                   "[/tmp/other.zip].")));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("one.txt"));
    EXPECT_EQ(quorvel::QVZM_BAD_INPUT_PARAMS, zip.Read(nullptr, 4));
    EXPECT_EQ(quorvel::QVZM_BAD_INPUT_PARAMS, zip.Read(buffer, 0));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"buf\", return(\"QVZM_BAD_INPUT_PARAMS\")]Bad "
                                   "param \"buf\" is nullptr.")));
    EXPECT_TRUE(log.Has(1, PidLine("Condition: \"size\", return(\"QVZM_BAD_INPUT_PARAMS\")]Bad "
                                   "param \"size\" [0].")));

    // Listing drops the open member; a failed change leaves none open.
    EXPECT_EQ(quorvel::QVZM_OK, zip.GetFilesList(names));
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Read(buffer, sizeof buffer));
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("two.txt"));
    EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.ChangeFile("nine.txt"));
    EXPECT_FALSE(zip.IsCurrentOpen());
    EXPECT_EQ(quorvel::QVZM_OK, zip.Close());
    EXPECT_FALSE(zip.IsOpen());
    // Open again after a close, then leave the rest to the destructor.
    EXPECT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/a.zip", "TWO.TXT"));
    EXPECT_EQ(3, zip.Read(buffer, sizeof buffer));
}

TEST(ZipManager, DamagedArchivesAndOtherFilesAreRefused) {
    const std::string text = Lines(5000, "damage");
    MakeWithPython("/tmp/good.zip", {"m.txt", "deflated", text});
    std::ifstream in("/tmp/good.zip", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};

    // The end of the central directory cut off: no archive. Its entry broken: an archive whose
    // directory can't be walked, nor any member found.
    WriteFile("/tmp/cut.zip", bytes.substr(0, bytes.size() - 30));
    std::string broken = bytes;
    const size_t directory = broken.rfind("PK\x01\x02");
    ASSERT_NE(std::string::npos, directory);
    broken[directory + 2] = 'X';
    WriteFile("/tmp/broken.zip", broken);
    WriteFile("/tmp/plain.txt", text);
    mg_mkdir("/tmp/folder.zip", 0755);

    LogCapture log;
    for (const char* path :
         {"/tmp/cut.zip", "/tmp/plain.txt", "/tmp/folder.zip", "/tmp/none.zip"}) {
        QVZipManager zip;
        EXPECT_EQ(quorvel::QVZM_NOT_OPENED, zip.Open(path, "m.txt")) << path;
        EXPECT_FALSE(zip.IsOpen()) << path;
        EXPECT_TRUE(
            log.Has(1, PidLine(std::string("Condition: \"zip_f_\", "
                                           "return(\"QVZM_NOT_OPENED\")]Can't open file [") +
                               path + "].")));
    }
    {
        QVZipManager zip;
        EXPECT_EQ(quorvel::QVZM_CURRENT_NOT_OPENED, zip.Open("/tmp/broken.zip", "m.txt"));
        std::list<std::string> names;
        EXPECT_EQ(quorvel::QVZM_ERROR_GET_INFO, zip.GetFilesList(names));
        EXPECT_TRUE(names.empty());
        EXPECT_TRUE(log.Has(1, PidLine("Condition: \"unzGoToFirstFile(zip_f_) == UNZ_OK\", "
                                       "return(\"QVZM_ERROR_GET_INFO\")]Error go to first file.")));
    }

    // Damage inside the compressed data: reading fails with minizip's code, skipping just stops.
    std::string spoiled = bytes;
    const size_t data = bytes.find("m.txt") + 5;
    for (size_t i = data + 100; i < data + 400; ++i)
        spoiled[i] = static_cast<char>(~spoiled[i]);
    WriteFile("/tmp/spoiled.zip", spoiled);
    QVZipManager zip;
    ASSERT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/spoiled.zip", "m.txt"));
    std::vector<char> buffer(text.size());
    EXPECT_LT(zip.Read(buffer.data(), buffer.size()), 0);
    ASSERT_EQ(quorvel::QVZM_OK, zip.ChangeFile("m.txt"));
    EXPECT_LT(zip.Skip(text.size()), static_cast<long>(text.size()));
}

long PeakResidentKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// A member of 400 MB, deflated, read in 64 KiB pieces: the bytes arrive whole and in order (the
// CRC of the reads matches the maker's), and the reader's memory does not grow with the member.
TEST(ZipManager, AHugeMemberIsReadInPiecesWithoutHoldingIt) {
    const char kMakeHuge[] = R"(
import sys, zipfile, zlib
size, crc = int(sys.argv[2]), 0
piece = bytes((i * 7 + i // 251) & 0xff for i in range(1 << 20))
with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED, compresslevel=1) as z:
    z.writestr('small.txt', 'small')
    with z.open('audio/huge.mp3', 'w', force_zip64=False) as out:
        for offset in range(0, size, len(piece)):
            chunk = piece[:min(len(piece), size - offset)]
            chunk = bytes([offset // len(piece) & 0xff]) + chunk[1:]
            crc = zlib.crc32(chunk, crc)
            out.write(chunk)
print(crc)
)";
    constexpr long kSize = 400L << 20;
    auto made =
        qvtest::RunProgram({"python3", "-c", kMakeHuge, "/tmp/huge.zip", std::to_string(kSize)}, "",
                           std::chrono::seconds(300));
    ASSERT_TRUE(made.Succeeded()) << made.Describe();
    const unsigned long expected_crc = std::stoul(made.output);

    QVZipManager zip;
    ASSERT_EQ(quorvel::QVZM_OK, zip.Open("/tmp/huge.zip", "AUDIO/huge.mp3"));
    ASSERT_EQ(kSize, zip.GetCurrentFileSize());
    const long before = PeakResidentKiB();
    std::vector<Bytef> buffer(64 * 1024);
    uLong crc = crc32(0, nullptr, 0);
    long total = 0;
    int got;
    while ((got = zip.Read(buffer.data(), buffer.size())) > 0) {
        crc = crc32(crc, buffer.data(), static_cast<uInt>(got));
        total += got;
    }
    EXPECT_EQ(0, got);
    EXPECT_EQ(kSize, total);
    EXPECT_EQ(kSize, zip.Tell());
    EXPECT_EQ(expected_crc, crc);
    EXPECT_LT(PeakResidentKiB() - before, 16 * 1024) << "KiB added while reading";
}

}  // namespace
