// The host's configuration files: real files shared by real processes.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "child_process.h"
#include "moorglass.h"

namespace {

using qvtest::ChildProcess;
using qvtest::RunInChild;

const std::string kPath = "/mnt/ext1/system/config/test.cfg";

struct ConfigCloser {
    void operator()(iconfig* cfg) const { CloseConfigNoSave(cfg); }
};
using Config = std::unique_ptr<iconfig, ConfigCloser>;

Config Open(const std::string& path = kPath) {
    return Config(OpenConfig(path.c_str(), 0));
}

std::string FileText(const std::string& path = kPath) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void WriteFile(const std::string& text, const std::string& path = kPath) {
    std::ofstream(path, std::ios::trunc) << text;
}

std::string Read(iconfig* cfg, const char* key) {
    const char* value = ReadString(cfg, key, nullptr);
    return value ? value : "<none>";
}

// Walks one table the way any reader of an `iconfig` does: by words, not by field names.
std::map<std::string, std::string> WalkTable(const iconfig* cfg, int word) {
    auto words = reinterpret_cast<void* const*>(cfg);
    auto hash = static_cast<void* const*>(words[word]);
    int buckets = *reinterpret_cast<const int*>(hash);
    auto chains = static_cast<void* const*>(hash[4]);
    std::map<std::string, std::string> entries;
    for (int b = 0; b < buckets; ++b) {
        for (auto node = static_cast<void* const*>(chains[b]); node;
             node = static_cast<void* const*>(node[2])) {
            entries[static_cast<const char*>(node[0])] = static_cast<const char*>(node[1]);
        }
    }
    return entries;
}

TEST(ConfigStore, ReadsPlainFilesLeniently) {
    // A missing file is an empty store, not a failure.
    Config missing = Open("/mnt/ext1/system/config/absent.cfg");
    ASSERT_NE(missing, nullptr);
    EXPECT_STREQ(ReadString(missing.get(), "key", "fallback"), "fallback");
    EXPECT_EQ(ReadInt(missing.get(), "key", 7), 7);
    EXPECT_EQ(OpenConfig("", 0), nullptr);
    EXPECT_EQ(OpenConfig(nullptr, 0), nullptr);

    WriteFile(
        "\xEF\xBB\xBF"
        "first=1\r\n"
        "# a comment line\n"
        "no equals sign here\n"
        " spaced = value with  spaces \n"
        "dup=old\n"
        "empty=\n"
        "dup=new\n"
        "count=42abc\n"
        "word=abc\n"
        "url=http://host/?a=b\n");
    Config cfg = Open();
    EXPECT_EQ(Read(cfg.get(), "first"), "1");
    EXPECT_EQ(Read(cfg.get(), "spaced"), " value with  spaces ");
    EXPECT_EQ(Read(cfg.get(), "dup"), "new");
    EXPECT_EQ(Read(cfg.get(), "empty"), "");
    EXPECT_EQ(Read(cfg.get(), "url"), "http://host/?a=b");
    EXPECT_EQ(Read(cfg.get(), "no equals sign here"), "<none>");
    EXPECT_EQ(ReadInt(cfg.get(), "first", -1), 1);
    EXPECT_EQ(ReadInt(cfg.get(), "count", -1), 42);
    EXPECT_EQ(ReadInt(cfg.get(), "word", -1), -1);
    EXPECT_EQ(ReadInt(cfg.get(), "empty", -1), -1);
    EXPECT_EQ(ReadString(nullptr, "first", "d"), std::string("d"));
}

TEST(ConfigStore, SaveKeepsOrderAndCommentsAndRoundTripsAnyValue) {
    WriteFile("# settings\nb=2\n\na=1\n");
    Config cfg = Open();
    WriteString(cfg.get(), "a", "one");
    WriteString(cfg.get(), "multi", "line one\nline two\r\n");
    WriteString(cfg.get(), "lookalike", "$qvs$00");
    WriteInt(cfg.get(), "n", -12);
    WriteString(cfg.get(), "bad=key", "ignored");
    WriteString(cfg.get(), "", "ignored");
    DeleteString(cfg.get(), "b");
    ASSERT_EQ(SaveConfig(cfg.get()), 0);

    std::string text = FileText();
    EXPECT_EQ(text.rfind("# settings\n\na=one\n", 0), 0u) << text;
    EXPECT_EQ(text.find("b=2"), std::string::npos);
    EXPECT_EQ(text.find("bad"), std::string::npos);

    Config again = Open();
    EXPECT_EQ(Read(again.get(), "multi"), "line one\nline two\r\n");
    EXPECT_EQ(Read(again.get(), "lookalike"), "$qvs$00");
    EXPECT_EQ(ReadInt(again.get(), "n", 0), -12);
    EXPECT_EQ(Read(again.get(), "b"), "<none>");

    // A value ending in a carriage return, in a CRLF file, survives a save of another key
    // (found by fuzz_config).
    WriteFile("cr=2\r\r\nother=1\r\n");
    Config crlf = Open();
    ASSERT_EQ(Read(crlf.get(), "cr"), "2\r");
    WriteString(crlf.get(), "other", "3");
    ASSERT_EQ(SaveConfig(crlf.get()), 0);
    EXPECT_EQ(Read(Open().get(), "cr"), "2\r");

    // So does a first key that begins with a byte-order mark.
    WriteFile("");
    Config marked = Open();
    WriteString(marked.get(), "\xEF\xBB\xBFkey", "v");
    ASSERT_EQ(SaveConfig(marked.get()), 0);
    EXPECT_EQ(Read(Open().get(), "\xEF\xBB\xBFkey"), "v");

    // A line whose key holds a zero byte names no key a caller can ask for: it neither shadows
    // the key its first bytes spell nor is lost by a save (found by fuzz_config and
    // fuzz_wifi_config; this key falls into the bucket of "language").
    WriteFile(std::string("language=de\nlanguage\0usAAAAA_status= \r\n", 39));
    Config zeroed = Open();
    using Map = std::map<std::string, std::string>;
    EXPECT_EQ(WalkTable(zeroed.get(), 1), (Map{{"language", "de"}}));
    WriteString(zeroed.get(), "language", "fr");
    ASSERT_EQ(SaveConfig(zeroed.get()), 0);
    EXPECT_EQ(Read(Open().get(), "language"), "fr");
    EXPECT_NE(FileText().find(std::string("language\0usAAAAA_status= \n", 26)), std::string::npos);
}

TEST(ConfigStore, SecretsStayOutOfPlainSight) {
    Config cfg = Open();
    WriteSecret(cfg.get(), "password", "hunter2 ünïcode");
    WriteString(cfg.get(), "user", "anna");
    ASSERT_EQ(SaveConfig(cfg.get()), 0);
    EXPECT_EQ(FileText().find("hunter2"), std::string::npos);

    Config again = Open();
    EXPECT_STREQ(ReadSecret(again.get(), "password", ""), "hunter2 ünïcode");
    EXPECT_EQ(Read(again.get(), "password"), "<none>");  // a secret has no plain value
    EXPECT_STREQ(ReadSecret(again.get(), "user", ""), "anna");

    // Writing the other kind replaces the value.
    WriteString(again.get(), "password", "now plain");
    ASSERT_EQ(SaveConfig(again.get()), 0);
    Config third = Open();
    EXPECT_EQ(Read(third.get(), "password"), "now plain");
    EXPECT_STREQ(ReadSecret(third.get(), "password", "x"), "now plain");
}

TEST(ConfigStore, TablesHoldValuesSecretsAndUnsavedChanges) {
    WriteFile("saved=1\nboth=file\n");
    Config cfg = Open();
    WriteString(cfg.get(), "both", "changed");
    WriteString(cfg.get(), "fresh", "new");
    WriteSecret(cfg.get(), "token", "abc");

    using Map = std::map<std::string, std::string>;
    EXPECT_EQ(WalkTable(cfg.get(), 1), (Map{{"saved", "1"}, {"both", "file"}}));
    EXPECT_EQ(WalkTable(cfg.get(), 2), (Map{{"token", "abc"}}));
    EXPECT_EQ(WalkTable(cfg.get(), 3), (Map{{"both", "changed"}, {"fresh", "new"}}));

    ASSERT_EQ(SaveConfig(cfg.get()), 0);
    EXPECT_EQ(WalkTable(cfg.get(), 1),
              (Map{{"saved", "1"}, {"both", "changed"}, {"fresh", "new"}}));
    EXPECT_TRUE(WalkTable(cfg.get(), 3).empty());

    // Many keys: the tables grow and every key stays reachable.
    for (int i = 0; i < 500; ++i)
        WriteInt(cfg.get(), ("k" + std::to_string(i)).c_str(), i);
    EXPECT_EQ(WalkTable(cfg.get(), 3).size(), 500u);
    EXPECT_EQ(ReadInt(cfg.get(), "k377", -1), 377);
}

TEST(ConfigStore, AnotherProcessSaveIsSeenAfterRefresh) {
    WriteFile("shared=before\n");
    Config cfg = Open();
    WriteString(cfg.get(), "mine", "unsaved");

    auto child = RunInChild([] {
        Config other = Open();
        WriteString(other.get(), "shared", "after");
        WriteString(other.get(), "theirs", "x");
        return SaveConfig(other.get()) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(child.Succeeded()) << child.output;

    EXPECT_EQ(Read(cfg.get(), "shared"), "before");  // no refresh yet
    iconfig* handle = cfg.get();
    RefreshConfig(&handle);
    ASSERT_EQ(handle, cfg.get());
    EXPECT_EQ(Read(cfg.get(), "shared"), "after");
    EXPECT_EQ(Read(cfg.get(), "theirs"), "x");
    EXPECT_EQ(Read(cfg.get(), "mine"), "unsaved");  // a refresh loses nothing written here

    // Our save re-reads the file: keys we never touched keep the other process's values.
    ASSERT_EQ(SaveConfig(cfg.get()), 0);
    Config fresh = Open();
    EXPECT_EQ(Read(fresh.get(), "theirs"), "x");
    EXPECT_EQ(Read(fresh.get(), "mine"), "unsaved");
}

TEST(ConfigStore, SaveModifiesTheWatchedFileInPlace) {
    WriteFile("a=1\n");
    int fd = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_GE(inotify_add_watch(fd, kPath.c_str(), IN_MODIFY), 0);

    auto child = RunInChild([] {
        Config other = Open();
        WriteString(other.get(), "a", "2");
        return SaveConfig(other.get());
    });
    ASSERT_TRUE(child.Succeeded()) << child.output;

    char buffer[4096];
    EXPECT_GT(read(fd, buffer, sizeof buffer), 0) << "the watcher of the file heard nothing";
    close(fd);

    // A save that changes nothing doesn't touch the file, so watchers aren't woken for nothing.
    fd = inotify_init1(IN_NONBLOCK);
    ASSERT_GE(inotify_add_watch(fd, kPath.c_str(), IN_MODIFY), 0);
    Config cfg = Open();
    WriteString(cfg.get(), "a", "2");
    ASSERT_EQ(SaveConfig(cfg.get()), 0);
    EXPECT_LT(read(fd, buffer, sizeof buffer), 0);
    close(fd);
}

// Every key of a version carries the version's letter; a mix of letters is a torn file.
std::string VersionLetters(iconfig* cfg, int keys) {
    std::string letters;
    for (int i = 0; i < keys; ++i) {
        std::string value = Read(cfg, ("key" + std::to_string(i)).c_str());
        if (letters.find(value) == std::string::npos) letters += value;
    }
    return letters;
}

TEST(ConfigStore, KilledSaversAndBusyReadersNeverSeeHalfAFile) {
    constexpr int kKeys = 2000;
    {
        Config cfg = Open();
        for (int i = 0; i < kKeys; ++i) {
            WriteString(cfg.get(), ("key" + std::to_string(i)).c_str(), "A");
        }
        ASSERT_EQ(SaveConfig(cfg.get()), 0);
    }
    auto saver = [] {
        // Every save stops for a while with half the new text in the file: readers and the kill
        // below meet a half-written file for certain.
        setenv("QV_HOST_SAVE_PAUSE_MS", "20", 1);
        Config cfg = Open();
        for (int round = 0;; ++round) {
            // Each save flips every key; the lengths differ, so the file's size changes too.
            std::string value = round % 2 ? "A" : "BBBBBBBB";
            for (int i = 0; i < kKeys; ++i) {
                WriteString(cfg.get(), ("key" + std::to_string(i)).c_str(), value.c_str());
            }
            if (SaveConfig(cfg.get()) != 0) return 1;
        }
    };
    auto reader = [] {
        for (int i = 0; i < 30; ++i) {
            Config cfg = Open();
            std::string letters = VersionLetters(cfg.get(), kKeys);
            if (letters != "A" && letters != "BBBBBBBB") {
                std::printf("torn read: %s\n", letters.c_str());
                return 1;
            }
        }
        return 0;
    };

    int killed_mid_save = 0;
    for (int attempt = 0; attempt < 8; ++attempt) {
        ChildProcess writer = ChildProcess::Start(saver);
        auto read_result = RunInChild(reader);
        EXPECT_TRUE(read_result.Succeeded()) << read_result.Describe();
        if (attempt % 2 == 0) {
            // Half the kills wait for a save in flight, so that a loaded machine can't make them
            // all land between saves.
            for (int waited = 0; waited < 5000 && access((kPath + ".saving").c_str(), F_OK) != 0;
                 ++waited) {
                usleep(1000);
            }
        } else {
            usleep(3000 * attempt);
        }
        writer.Kill(SIGKILL);
        EXPECT_EQ(writer.Wait().signal, SIGKILL);

        killed_mid_save += access((kPath + ".saving").c_str(), F_OK) == 0;
        Config cfg = Open();
        std::string letters = VersionLetters(cfg.get(), kKeys);
        EXPECT_TRUE(letters == "A" || letters == "BBBBBBBB")
            << "after kill " << attempt << ": " << letters;
    }
    EXPECT_GT(killed_mid_save, 0) << "no kill landed in a save; the case went untested";

    // The next save finishes the job: a whole file, and no journal.
    Config cfg = Open();
    WriteString(cfg.get(), "after", "1");
    ASSERT_EQ(SaveConfig(cfg.get()), 0);
    EXPECT_NE(access((kPath + ".saving").c_str(), F_OK), 0);
    Config again = Open();
    std::string letters = VersionLetters(again.get(), kKeys);
    EXPECT_TRUE(letters == "A" || letters == "BBBBBBBB") << letters;
    EXPECT_EQ(Read(again.get(), "after"), "1");
}

TEST(ConfigStore, GlobalConfigFollowsTheFile) {
    const std::string global = "/mnt/ext1/system/config/global.cfg";
    WriteFile("language=de\n", global);
    iconfig* cfg = GetGlobalConfig();
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(Read(cfg, "language"), "de");

    auto child = RunInChild([&] {
        Config other = Open(global);
        WriteString(other.get(), "language", "uk");
        return SaveConfig(other.get());
    });
    ASSERT_TRUE(child.Succeeded()) << child.output;
    EXPECT_EQ(GetGlobalConfig(), cfg);
    EXPECT_EQ(Read(cfg, "language"), "uk");

    CloseConfig(cfg);  // the application's own handle survives a stray close
    EXPECT_EQ(Read(GetGlobalConfig(), "language"), "uk");
}

}  // namespace
