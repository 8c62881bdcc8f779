// qvtool image, qr, frame and qlz as a person uses them: files in, files out, exit codes.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "child_process.h"

namespace {

using qvtest::Contains;
using qvtest::Qvtool;
using qvtest::RunProgram;

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(QvtoolImages, QrCodesFramesAndPicturesRoundTrip) {
    auto qr = Qvtool({"qr", "https://example.org/sign-in?code=42", "-o", "/tmp/qr.png"});
    ASSERT_TRUE(qr.Succeeded()) << qr.Describe();
    EXPECT_TRUE(Contains(qr.output, "/tmp/qr.png: code of ")) << qr.output;
    RunProgram({"sh", "-c", "zbarimg -q --raw /tmp/qr.png > /tmp/qr.txt 2> /dev/null"});
    EXPECT_EQ("https://example.org/sign-in?code=42\n", Read("/tmp/qr.txt"));

    auto info = Qvtool({"image", "info", "/tmp/qr.png"});
    EXPECT_TRUE(Contains(info.output, "depth 8")) << info.Describe();

    for (const std::string form : {"", "--quicklz"}) {
        std::vector<std::string> pack = {"frame", "pack", "/tmp/qr.png", "/tmp/qr.frame"};
        if (!form.empty()) pack.push_back(form);
        auto packed = Qvtool(pack);
        ASSERT_TRUE(packed.Succeeded()) << packed.Describe();
        auto unpacked = Qvtool({"frame", "unpack", "/tmp/qr.frame", "/tmp/back.png"});
        ASSERT_TRUE(unpacked.Succeeded()) << unpacked.Describe();
        EXPECT_EQ(form.empty(), !Contains(unpacked.output, "with QuickLZ")) << unpacked.output;
        // Black and white survive the 16 greys exactly.
        auto compare = RunProgram(
            {"/usr/bin/compare", "-metric", "AE", "/tmp/qr.png", "/tmp/back.png", "null:"});
        EXPECT_EQ("0", compare.output) << "pixels that differ";
    }

    EXPECT_EQ(1, Qvtool({"frame", "unpack", "/tmp/qr.png", "/tmp/x.png"}).exit_code);
    EXPECT_EQ(3, Qvtool({"image", "info", "/tmp/none.png"}).exit_code);
    EXPECT_EQ(3, Qvtool({"image", "info", "no_such_theme_icon"}).exit_code);
    { std::ofstream("/tmp/lies.jpg") << "not a picture"; }
    EXPECT_EQ(1, Qvtool({"image", "convert", "/tmp/lies.jpg", "/tmp/x.png"}).exit_code);
    EXPECT_EQ(1, Qvtool({"qr", std::string(5000, 'q')}).exit_code);
}

TEST(QvtoolImages, QlzCompressesAndRefusesDamage) {
    const std::string text = "a frame of text, a frame of text, a frame of text and more text";
    { std::ofstream("/tmp/in.txt") << text; }
    ASSERT_TRUE(Qvtool({"qlz", "c", "/tmp/in.txt", "/tmp/in.qlz"}).Succeeded());
    ASSERT_TRUE(Qvtool({"qlz", "d", "/tmp/in.qlz", "/tmp/out.txt"}).Succeeded());
    EXPECT_EQ(text, Read("/tmp/out.txt"));

    std::string frame = Read("/tmp/in.qlz");
    { std::ofstream("/tmp/cut.qlz", std::ios::binary) << frame.substr(0, frame.size() - 3); }
    auto cut = Qvtool({"qlz", "d", "/tmp/cut.qlz", "/tmp/x"});
    EXPECT_EQ(1, cut.exit_code);
    EXPECT_TRUE(Contains(cut.output, "the frame is truncated")) << cut.output;
    EXPECT_EQ(2, Qvtool({"qlz", "x", "/tmp/in.txt", "/tmp/x"}).exit_code);
    EXPECT_EQ(3, Qvtool({"qlz", "c", "/tmp/none", "/tmp/x"}).exit_code);
}

}  // namespace
