// LomUtilities against the system's sha1sum and md5sum, and the scramble's round trip.

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>

#include "child_process.h"
#include "common_utilities/lom_utilities.h"

namespace {

using quorvel::utilities::LomUtilities;

std::string RandomBytes(std::mt19937& random, size_t size) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(byte(random));
    return bytes;
}

// The digest a shell pipeline prints ("HEX  -"), without the name.
std::string Shell(const std::string& pipeline, const std::string& input = "") {
    qvtest::ChildResult result = qvtest::RunProgram({"sh", "-c", pipeline}, input);
    EXPECT_EQ(result.exit_code, 0) << result.Describe();
    return result.output.substr(0, result.output.find(' '));
}

TEST(LomUtilities, DigestsMatchTheSystemTools) {
    std::mt19937 random(21);
    const std::string file = "/tmp/book.bin";
    const long part = LomUtilities::kMd5PartSize;
    // Around the read piece and the two ends of the partial digest.
    for (long size :
         {0L, 1L, 1000L, part - 1, part + 7, 2 * part, 2 * part + 1, 3 * part + 5, 5L << 20}) {
        const std::string bytes = RandomBytes(random, static_cast<size_t>(size));
        std::ofstream(file, std::ios::binary) << bytes;
        SCOPED_TRACE("size " + std::to_string(size));
        EXPECT_EQ(LomUtilities::GetSha1(bytes), Shell("sha1sum", bytes));
        EXPECT_EQ(LomUtilities::GetFileSha1(file), Shell("sha1sum " + file));
        if (size <= 2 * part) {
            EXPECT_EQ(LomUtilities::GetPartialFileMd5(file), Shell("md5sum " + file));
        } else {
            EXPECT_EQ(
                LomUtilities::GetPartialFileMd5(file),
                Shell("{ head -c 65536 " + file + "; tail -c 65536 " + file + "; } | md5sum"));
            // A change between the ends leaves the fingerprint; one at the tail changes it.
            const std::string before = LomUtilities::GetPartialFileMd5(file);
            std::fstream edit(file, std::ios::in | std::ios::out | std::ios::binary);
            edit.seekp(size / 2) << char(bytes[size / 2] ^ 1) << std::flush;
            EXPECT_EQ(LomUtilities::GetPartialFileMd5(file), before);
            edit.seekp(size - 1) << char(bytes[size - 1] ^ 1) << std::flush;
            EXPECT_NE(LomUtilities::GetPartialFileMd5(file), before);
        }
    }
    EXPECT_EQ(LomUtilities::GetSha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");

    // Nothing to read: an empty text, never the digest of nothing.
    EXPECT_EQ(LomUtilities::GetFileSha1("/tmp/none"), "");
    EXPECT_EQ(LomUtilities::GetPartialFileMd5("/tmp/none"), "");
    EXPECT_EQ(LomUtilities::GetFileSha1("/tmp"), "");
    EXPECT_EQ(LomUtilities::GetPartialFileMd5("/tmp"), "");
}

TEST(LomUtilities, ScrambleRoundTripsAndTouchesOnlyPrintableAscii) {
    std::mt19937 random(12);
    for (int i = 0; i < 500; ++i) {
        const std::string text = RandomBytes(random, static_cast<size_t>(random() % 300));
        const std::string scrambled = LomUtilities::Scramble(text);
        ASSERT_EQ(LomUtilities::Unscramble(scrambled), text);
        ASSERT_EQ(scrambled.size(), text.size());
        for (size_t k = 0; k < text.size(); ++k) {
            const bool printable = text[k] > ' ' && text[k] < 127;
            ASSERT_EQ(printable, scrambled[k] > ' ' && scrambled[k] < 127);
            if (!printable) {
                ASSERT_EQ(scrambled[k], text[k]);
            }
        }
    }
    // Texts scrambled by one build are unscrambled by every later one: the table is fixed.
    EXPECT_EQ(LomUtilities::Scramble("Hello, World! Привет"), "!wZ;%) A1CcD@ Привет");
    // Equal characters come out different along the text.
    const std::string aaaa = LomUtilities::Scramble("aaaa");
    EXPECT_TRUE(aaaa[0] != aaaa[1] && aaaa[1] != aaaa[2] && aaaa[2] != aaaa[3]) << aaaa;
}

}  // namespace
