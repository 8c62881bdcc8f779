// qvtool country, language, args, plugin and hash: output and exit codes a script relies on.

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "child_process.h"

namespace {

using qvtest::Qvtool;
using qvtest::Contains;

using qvtest::ChildResult;

TEST(QvtoolReference, CountryAndLanguageCodes) {
    EXPECT_EQ(Qvtool({"country", "deu"}).output,
              "FIPS 10-4   GM\nalpha-2     DE\nalpha-3     DEU\nnumeric-3   276\n");
    EXPECT_EQ(Qvtool({"country", "GM", "--from", "fips", "--to", "a2"}).output, "DE\n");
    EXPECT_EQ(Qvtool({"country", "gm", "--to", "a3"}).output, "GMB\n");  // alpha-2 by default
    EXPECT_EQ(Qvtool({"country", "826", "--to", "fips"}).output, "UK\n");
    EXPECT_EQ(Qvtool({"language", "fre", "--to", "term"}).output, "fra\n");
    EXPECT_EQ(Qvtool({"language", "DEU", "--to", "a2"}).output, "de\n");  // terminology code
    EXPECT_EQ(Qvtool({"language", "German", "--to", "bib"}).output, "ger\n");

    ChildResult unknown = Qvtool({"country", "QQ"});
    EXPECT_EQ(unknown.exit_code, 3) << unknown.Describe();
    EXPECT_TRUE(Contains(unknown.output, "no country with the alpha-2 code 'QQ'"));
    EXPECT_EQ(Qvtool({"country", "DE", "--to", "iso"}).exit_code, 2);
    EXPECT_EQ(Qvtool({"language"}).exit_code, 2);

    std::ofstream("/zelgrot/share/iso-639-2.txt", std::ios::trunc) << "# emptied\n";
    EXPECT_EQ(Qvtool({"language", "de"}).exit_code, 1);
}

TEST(QvtoolReference, ArgsShowsTheDevicesReading) {
    ChildResult line = Qvtool({"args", "-o \"my file\" -ab -"});
    EXPECT_EQ(line.exit_code, 0) << line.Describe();
    EXPECT_EQ(line.output,
              "tokens (4)\n  -o\n  my file\n  -ab\n  -\n"
              "options (4)\n  -(zero key)  (empty)\n  -a    b\n  -b    (empty)\n  -o    my file\n"
              "arguments (2)\n  my\n  file\n");
    ChildResult argv = Qvtool({"args", "--argv", "-x", "1", "-x", "2"});
    EXPECT_TRUE(Contains(argv.output, "  -x    1\n  -x    2\n")) << argv.output;
    EXPECT_EQ(Qvtool({"args", "a", "b"}).exit_code, 2);
}

TEST(QvtoolReference, PluginRunsAndReports) {
    std::ofstream("/tmp/a.txt") << "one two\nthree\n";
    ChildResult words = Qvtool({"plugin", "/zelgrot/lib/libqvwordcount.so", "/tmp/a.txt"});
    EXPECT_EQ(words.output, "status 2\nresult 3\n") << words.Describe();
    ChildResult lines =
        Qvtool({"plugin", "--notify", "--add-notification", "--run", "QVLibrary_RunLines",
                "/zelgrot/lib/libqvwordcount.so", "/tmp/a.txt"});
    EXPECT_EQ(lines.output, "notification 1\n/tmp/a.txt: 2 lines\nstatus 2\nresult 2\n")
        << lines.Describe();
    EXPECT_EQ(Qvtool({"plugin", "/zelgrot/lib/libqvsum.so", "2", "-5"}).output,
              "status 2\nresult -3\n");

    ChildResult no_flag = Qvtool({"plugin", "--notify", "/zelgrot/lib/libqvsum.so"});
    EXPECT_EQ(no_flag.exit_code, 1);
    EXPECT_TRUE(Contains(no_flag.output, "no QVLibrary_SetNotificationFlag")) << no_flag.output;
    ChildResult no_run = Qvtool({"plugin", "--run", "Nothing", "/zelgrot/lib/libqvsum.so"});
    EXPECT_EQ(no_run.exit_code, 1);
    ChildResult text = Qvtool({"plugin", "/tmp/a.txt"});
    EXPECT_EQ(text.exit_code, 1);
    EXPECT_TRUE(Contains(text.output, "Could not attach /tmp/a.txt")) << text.output;
    EXPECT_EQ(Qvtool({"plugin", "/zelgrot/lib/none.so"}).exit_code, 3);
    EXPECT_EQ(Qvtool({"plugin", "--bogus", "/zelgrot/lib/libqvsum.so"}).exit_code, 2);
}

TEST(QvtoolReference, HashCommands) {
    std::ofstream("/tmp/a.txt") << "abc";
    EXPECT_EQ(Qvtool({"hash", "sha1", "/tmp/a.txt"}).output,
              "a9993e364706816aba3e25717850c26c9cd0d89d  /tmp/a.txt\n");
    EXPECT_EQ(Qvtool({"hash", "sha1", "--text", "abc"}).output,
              "a9993e364706816aba3e25717850c26c9cd0d89d\n");
    EXPECT_EQ(Qvtool({"hash", "md5part", "/tmp/a.txt"}).output,
              "900150983cd24fb0d6963f7d28e17f72  /tmp/a.txt\n");
    ChildResult missing = Qvtool({"hash", "md5part", "/tmp/none", "/tmp/a.txt"});
    EXPECT_EQ(missing.exit_code, 3);
    EXPECT_TRUE(Contains(missing.output, "900150983cd24fb0d6963f7d28e17f72  /tmp/a.txt"));

    const std::string text = "Line one, \"quoted\"\n\tÄpfel & more\n";
    ChildResult scrambled = Qvtool({"hash", "scramble"}, text);
    EXPECT_NE(scrambled.output, text);
    EXPECT_EQ(Qvtool({"hash", "unscramble"}, scrambled.output).output, text);
    EXPECT_EQ(Qvtool({"hash", "scramble", "Hello"}).output, "!wZ;%\n");
}

}  // namespace
