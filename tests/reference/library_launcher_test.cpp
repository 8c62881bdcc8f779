// LibraryLauncher against the two sample plug-ins of the device image: libqvwordcount.so with
// every entry point (and QVLibrary_RunLines to rename Run to), libqvsum.so without the
// notification functions.

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "child_process.h"
#include "common_utilities/library_launcher.h"

namespace {

using quorvel::utilities::LibraryLauncher;

constexpr const char* kWordCount = "/zelgrot/lib/libqvwordcount.so";
constexpr const char* kSum = "/zelgrot/lib/libqvsum.so";

// The message of the runtime error `call` raises, or "" when it raises none.
template <typename Call>
std::string ErrorOf(Call call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

void WriteTextFiles() {
    std::ofstream("/tmp/a.txt") << "one two\nthree\n";
    std::ofstream("/tmp/b.txt") << "  four\tfive six  \n\nseven\n";
}

const char* const kFiles[] = {"wordcount", "/tmp/a.txt", "/tmp/b.txt"};

TEST(LibraryLauncher, MisuseRaisesNamedErrors) {
    LibraryLauncher none("");
    EXPECT_EQ(ErrorOf([&] { none.LoadLibrary(); }), "Library path is empty");
    EXPECT_EQ(ErrorOf([&] { none.ChangeFunctionName(LibraryLauncher::eRun, ""); }),
              "Function name is empty");

    LibraryLauncher unloaded(kWordCount);
    const std::string not_loaded = "Library does not load or found";
    EXPECT_EQ(ErrorOf([&] { unloaded.Run(); }), not_loaded);
    EXPECT_EQ(ErrorOf([&] { unloaded.SetParameters(0, nullptr); }), not_loaded);
    EXPECT_EQ(ErrorOf([&] { unloaded.GetStatus(); }), not_loaded);
    EXPECT_EQ(ErrorOf([&] { unloaded.GetResult(); }), not_loaded);
    EXPECT_EQ(ErrorOf([&] { unloaded.SetNotificationFlag(true); }), not_loaded);
    EXPECT_EQ(ErrorOf([&] { unloaded.AddNotification(); }), not_loaded);
}

TEST(LibraryLauncher, LibrariesThatDoNotLoadAreReportedOnTheErrorStream) {
    std::ofstream("/tmp/not-a-library.so") << "text\n";
    qvtest::ChildResult child = qvtest::RunInChild([] {
        LibraryLauncher missing("/zelgrot/lib/libmissing.so");
        LibraryLauncher text("/tmp/not-a-library.so");
        const bool loaded = missing.LoadLibrary() || text.LoadLibrary();
        // Still unusable afterwards.
        return loaded || ErrorOf([&] { text.Run(); }) != "Library does not load or found";
    });
    EXPECT_EQ(child.exit_code, 0) << child.Describe();
    EXPECT_NE(child.output.find("Could not attach /zelgrot/lib/libmissing.so, errno="),
              std::string::npos)
        << child.output;
    EXPECT_NE(child.output.find("desription = /tmp/not-a-library.so: "), std::string::npos)
        << child.output;
}

TEST(LibraryLauncher, EveryEntryPointReachesThePlugin) {
    WriteTextFiles();
    qvtest::ChildResult child = qvtest::RunInChild([] {
        LibraryLauncher plugin(kWordCount);
        if (!plugin.LoadLibrary() || !plugin.LoadLibrary()) return 1;
        if (plugin.GetStatus() != 0) return 2;
        plugin.SetParameters(3, kFiles);
        if (plugin.GetStatus() != 1) return 3;
        plugin.SetNotificationFlag(true);
        plugin.AddNotification();
        plugin.Run();
        return plugin.GetStatus() == 2 ? 0 : 4;
    });
    EXPECT_EQ(child.exit_code, 0) << child.Describe();
    EXPECT_EQ(child.output, "notification 1\n/tmp/a.txt: 3 words\n/tmp/b.txt: 4 words\n");

    LibraryLauncher plugin(kWordCount);
    ASSERT_TRUE(plugin.LoadLibrary());
    plugin.SetParameters(3, kFiles);
    plugin.Run();
    EXPECT_EQ(plugin.GetResult(), 7);
}

TEST(LibraryLauncher, RenamedEntryPointTakesEffectAtTheNextCall) {
    WriteTextFiles();
    LibraryLauncher plugin(kWordCount);
    ASSERT_TRUE(plugin.LoadLibrary());
    plugin.SetParameters(3, kFiles);
    plugin.Run();
    EXPECT_EQ(plugin.GetResult(), 7);

    plugin.ChangeFunctionName(LibraryLauncher::eRun, "QVLibrary_RunLines");
    plugin.Run();
    EXPECT_EQ(plugin.GetResult(), 5);

    plugin.ChangeFunctionName(LibraryLauncher::eRun, "QVLibrary_RunBackwards");
    EXPECT_EQ(ErrorOf([&] { plugin.Run(); }), "Function does not found");
    plugin.ChangeFunctionName(LibraryLauncher::eRun, "QVLibrary_Run");
    plugin.Run();
    EXPECT_EQ(plugin.GetResult(), 7);

    // An unreadable file: the plug-in's own status comes back unchanged.
    const char* const missing[] = {"wordcount", "/tmp/none.txt"};
    plugin.SetParameters(2, missing);
    plugin.Run();
    EXPECT_EQ(plugin.GetStatus(), -1);
}

TEST(LibraryLauncher, PluginWithoutOptionalFunctionsStillRuns) {
    LibraryLauncher plugin(kSum);
    ASSERT_TRUE(plugin.LoadLibrary());
    const char* const numbers[] = {"sum", "40", "-3", "5"};
    plugin.SetParameters(4, numbers);
    plugin.Run();
    EXPECT_EQ(plugin.GetStatus(), 2);
    EXPECT_EQ(plugin.GetResult(), 42);
    // Missing every time it is asked for, and the plug-in keeps working in between.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ErrorOf([&] { plugin.AddNotification(); }), "Function does not found");
        EXPECT_EQ(ErrorOf([&] { plugin.SetNotificationFlag(true); }), "Function does not found");
        EXPECT_EQ(plugin.GetResult(), 42);
    }
}

}  // namespace
