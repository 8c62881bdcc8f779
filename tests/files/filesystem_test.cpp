// File operations on the sandbox's two storages (two tmpfs mounts): moves that copy and moves that
// rename, removal, free space, listings, path helpers and the line reader.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common_utilities/filesystem.h"
#include "log_capture.h"
#include "moorglass_host.h"

namespace {

namespace fs = quorvel::system::filesystem;
using quorvel::system::FileSystem;
using qvtest::LogCapture;
using qvtest::PidLine;

constexpr int kError = 1;
const std::string kInternal = "/mnt/ext1/Books";
const std::string kCard = "/mnt/ext2/Books";

void Write(const std::string& path, const std::string& text, mode_t mode = 0644) {
    ASSERT_EQ(fs::CreateDirectoryTree(path), 0) << path;
    std::ofstream(path, std::ios::binary) << text;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct stat Stat(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// An old time, so that a copy that took the copying moment shows.
void Age(const std::string& path) {
    const struct timespec times[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// A tree of text files and one link; the names test quoting and non-ASCII letters.
std::vector<std::string> MakeTree(const std::string& root) {
    std::vector<std::string> files = {"War and Peace.fb2", "Tolstoy's \"notes\".txt",
                                      "sub/Анна Каренина.epub", "sub/deeper/$HOME (copy).pdf",
                                      "sub/deeper/empty"};
    for (const auto& name : files)
        Write(root + "/" + name, "text of " + name);
    EXPECT_EQ(::symlink("War and Peace.fb2", (root + "/link.fb2").c_str()), 0);
    return files;
}

TEST(Filesystem, MoveAcrossStoragesCopiesKeepingModesAndTimesThenUnlinks) {
    Write(kInternal + "/a.epub", "book", 0600);
    Age(kInternal + "/a.epub");
    struct stat before = Stat(kInternal + "/a.epub");

    ASSERT_EQ(fs::MoveFile(kInternal + "/a.epub", "/mnt/ext2/new/shelf/"), 0);
    EXPECT_FALSE(Exists(kInternal + "/a.epub"));
    const std::string moved = "/mnt/ext2/new/shelf/a.epub";
    EXPECT_EQ(Read(moved), "book");
    struct stat after = Stat(moved);
    EXPECT_EQ(after.st_mode & 07777, 0600u);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    EXPECT_NE(after.st_dev, before.st_dev);

    // Within one storage the same file changes its name: same inode, nothing copied.
    ASSERT_EQ(fs::MoveFile(moved, "/mnt/ext2/other name.epub"), 0);
    EXPECT_EQ(Stat("/mnt/ext2/other name.epub").st_ino, after.st_ino);

    LogCapture log;
    EXPECT_NE(fs::MoveFile("/mnt/ext1/missing.epub", "/mnt/ext1/elsewhere.epub"), 0);
    EXPECT_TRUE(log.Has(kError, PidLine("Can't move file /mnt/ext1/missing.epub to "
                                        "/mnt/ext1/elsewhere.epub (rename), err = No such file "
                                        "or directory")));
    EXPECT_EQ(fs::MoveFile("", "/mnt/ext2/x"), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"file.empty() || dest_file.empty()\", "
                                        "return(\"-1\")]")));
}

TEST(Filesystem, MoveFilesCarriesATreeAcrossAndRefusesToMoveItIntoItself) {
    std::vector<std::string> files = MakeTree(kInternal);
    Age(kInternal + "/sub/Анна Каренина.epub");
    ASSERT_EQ(fs::CreateDirectoryTree(kCard + "/"), 0);

    EXPECT_EQ(fs::MoveFiles(kInternal + "/sub/deeper", kInternal, true), -1);
    EXPECT_EQ(fs::MoveFiles(kInternal, kInternal, true), -1);
    for (const auto& name : files)
        EXPECT_TRUE(Exists(kInternal + "/" + name)) << name;

    ASSERT_EQ(fs::MoveFiles(kCard, kInternal, true), 0);
    EXPECT_FALSE(Exists(kInternal));
    for (const auto& name : files)
        EXPECT_EQ(Read(kCard + "/" + name), "text of " + name) << name;
    EXPECT_EQ(Stat(kCard + "/sub/Анна Каренина.epub").st_mtim.tv_sec, 1100000000);
    // A link crosses as the file it points to.
    EXPECT_EQ(Read(kCard + "/link.fb2"), "text of War and Peace.fb2");

    // Back, keeping the folder itself (its subfolders go with their contents).
    ASSERT_EQ(fs::CreateDirectoryTree("/mnt/ext1/back/"), 0);
    ASSERT_EQ(fs::MoveFiles("/mnt/ext1/back", kCard, false), 0);
    EXPECT_TRUE(Exists(kCard));
    EXPECT_FALSE(Exists(kCard + "/sub"));
    EXPECT_EQ(Read("/mnt/ext1/back/sub/deeper/$HOME (copy).pdf"),
              "text of sub/deeper/$HOME (copy).pdf");
}

TEST(Filesystem, AMoveOntoAFullCardLosesNothing) {
    ASSERT_EQ(fs::CreateDirectoryTree("/mnt/ext2/small/"), 0);
    ASSERT_EQ(::mount("tmpfs", "/mnt/ext2/small", "tmpfs", 0, "size=256k"), 0) << errno;
    Write(kInternal + "/small.txt", std::string(10 * 1024, 's'));
    Write(kInternal + "/zbig.bin", std::string(1024 * 1024, 'b'));

    LogCapture log;
    EXPECT_EQ(fs::MoveFile(kInternal + "/zbig.bin", "/mnt/ext2/small/zbig.bin"), -1);
    EXPECT_EQ(Read(kInternal + "/zbig.bin"), std::string(1024 * 1024, 'b'));
    EXPECT_FALSE(Exists("/mnt/ext2/small/zbig.bin"));
    EXPECT_TRUE(log.HasFragment(
        kError,
        "Can't move file " + kInternal + "/zbig.bin to /mnt/ext2/small/zbig.bin (copy), err = "));

    // A tree: every file is whole in one place or the other, and the source stays.
    EXPECT_EQ(fs::MoveFiles("/mnt/ext2/small", kInternal, true), -1);
    EXPECT_TRUE(Exists(kInternal));
    EXPECT_EQ(Read(kInternal + "/zbig.bin").size(), 1024u * 1024u);
    EXPECT_FALSE(Exists("/mnt/ext2/small/zbig.bin"));
    std::string small =
        Exists(kInternal + "/small.txt") ? kInternal + "/small.txt" : "/mnt/ext2/small/small.txt";
    EXPECT_EQ(Read(small).size(), 10u * 1024u);

    // CopyFile likewise leaves no half file behind, and never truncates its own source.
    EXPECT_EQ(fs::CopyFile(kInternal + "/zbig.bin", "/mnt/ext2/small/copy.bin"), -1);
    EXPECT_FALSE(Exists("/mnt/ext2/small/copy.bin"));
    EXPECT_EQ(fs::CopyFile(kInternal + "/zbig.bin", kInternal + "/../Books/zbig.bin"), -1);
    EXPECT_EQ(Read(kInternal + "/zbig.bin").size(), 1024u * 1024u);
    EXPECT_TRUE(log.Has(kError, PidLine("Can't write whole buffer")));
}

TEST(Filesystem, CopyFileMakesTheTargetDirectoriesAndReportsWhatFails) {
    Write(kInternal + "/a b.txt", "contents");
    ASSERT_EQ(fs::CopyFile(kInternal + "/a b.txt", "/mnt/ext2/x/y/a b.txt"), 0);
    EXPECT_EQ(Read("/mnt/ext2/x/y/a b.txt"), "contents");
    EXPECT_EQ(Read(kInternal + "/a b.txt"), "contents");

    LogCapture log;
    EXPECT_EQ(fs::CopyFile("/mnt/ext1/none", "/mnt/ext2/none"), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Can't open /mnt/ext1/none for read")));
    Write("/mnt/ext1/plain", "x");
    EXPECT_EQ(fs::CopyFile(kInternal + "/a b.txt", "/mnt/ext1/plain/more/inside"), ENOTDIR);
    EXPECT_TRUE(
        log.Has(kError, PidLine("Can't create directory /mnt/ext1/plain/more with error: 20")));
    EXPECT_TRUE(log.Has(kError, PidLine(" err:[20] ")));
}

TEST(Filesystem, RemovalTakesDeepTreesAndReportsWhatStays) {
    std::string dir = kInternal;
    for (int depth = 0; depth < 60; ++depth) {
        dir += "/level " + std::to_string(depth);
        Write(dir + "/file'" + std::to_string(depth), "x");
    }
    MakeTree(kInternal + "/tree");
    ASSERT_EQ(fs::RemoveAllFiles(kInternal), 0);
    EXPECT_TRUE(Exists(kInternal));
    Write(kInternal + "/again", "x");
    ASSERT_EQ(fs::RemoveDir(kInternal), 0);
    EXPECT_FALSE(Exists(kInternal));

    LogCapture log;
    EXPECT_EQ(fs::RemoveDir(""), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"dir.empty()\", return(\"-1\")]")));
    EXPECT_EQ(fs::RemoveDir("/mnt/ext1/gone"), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Can't open dir /mnt/ext1/gone , err = No such file or "
                                        "directory")));
    EXPECT_TRUE(log.Has(kError, PidLine("Can't remove dir /mnt/ext1/gone , err = No such file "
                                        "or directory")));

    Write("/mnt/ext1/r/old", "x");
    EXPECT_EQ(fs::RenameDir("/mnt/ext1/r", "/mnt/ext1/renamed"), 0);
    EXPECT_EQ(Read("/mnt/ext1/renamed/old"), "x");
    EXPECT_NE(fs::RenameDir("/mnt/ext1/r", "/mnt/ext1/again"), 0);
    EXPECT_TRUE(log.Has(kError, PidLine("Can't rename dir /mnt/ext1/r to /mnt/ext1/again, err = "
                                        "No such file or directory")));
    EXPECT_EQ(fs::RemoveFile("/mnt/ext1/renamed/old"), 0);
    EXPECT_EQ(fs::RemoveFile("/mnt/ext1/renamed/old"), -1);
}

TEST(Filesystem, FreeSpaceOfAPathNotYetMadeIsItsStoragesAndTheListingsFilter) {
    ASSERT_EQ(fs::CreateDirectoryTree("/mnt/ext2/small/"), 0);
    ASSERT_EQ(::mount("tmpfs", "/mnt/ext2/small", "tmpfs", 0, "size=3m"), 0) << errno;
    EXPECT_EQ(fs::GetFreeSpace("/mnt/ext2/small/not/yet/made.epub"), 3);
    EXPECT_EQ(fs::GetFreeSpace("/mnt/ext2/small"), 3);
    EXPECT_GT(fs::GetFreeSpace("/mnt/ext1/nothing here"), 3);
    EXPECT_EQ(fs::GetFreeSpace(""), -1);
    EXPECT_EQ(fs::GetFreeSpace("relative/not/there"), -1);

    for (const char* name : {"a.TXT", "b.txt", "c.epub", ".hidden.txt", "d.Fb2", "noext", "e.pdf"})
        Write(std::string("/mnt/ext1/list/") + name, "x");
    Write("/mnt/ext2/list/f.txt", "x");
    auto sorted = [](std::vector<std::string> names) {
        std::sort(names.begin(), names.end());
        return names;
    };
    EXPECT_EQ(sorted(fs::GetFiles("/mnt/ext1/list", "*.txt,fb2")),
              (std::vector<std::string>{"a.TXT", "b.txt", "d.Fb2"}));
    EXPECT_EQ(fs::GetFiles("/mnt/ext1/list", "*").size(), 6u);
    EXPECT_TRUE(fs::GetFiles("/mnt/ext1/missing", "*").empty());
    std::vector<std::string> both =
        fs::GetFiles(std::vector<std::string>{"/mnt/ext2/list", "/mnt/ext1/list"}, "txt");
    ASSERT_EQ(both.size(), 3u);
    EXPECT_EQ(both[0], "f.txt");
    EXPECT_TRUE(fs::MatchExtention("x.tar.GZ", "*.gz"));
    EXPECT_FALSE(fs::MatchExtention("noext", "noext"));
}

TEST(Filesystem, PathHelpersKnowTheStoragesAndTheShell) {
    EXPECT_TRUE(fs::IsInternalLocation("/mnt/ext1/x"));
    EXPECT_TRUE(fs::IsExternalLocation("/mnt/ext2"));
    EXPECT_FALSE(fs::IsExternalLocation("/mnt/ext"));
    EXPECT_EQ(fs::CutCardPrefix("/mnt/ext2/Books/a.epub"), "/Books/a.epub");
    EXPECT_EQ(fs::CutCardPrefix("/mnt/ext1/Books"), "/mnt/ext1/Books");
    EXPECT_EQ(fs::GetFileNameFromPath("C:\\books\\a.b.epub"), "a.b.epub");
    EXPECT_EQ(fs::GetDirectoryTreeFromPath("/a/b/c"), "/a/b");
    EXPECT_EQ(fs::GetExtentionFromPath("/a.d/file"), "");
    EXPECT_EQ(fs::GetExtentionFromPath("/a/file.tar.gz"), "gz");
    EXPECT_EQ(fs::GetShortFileName(std::vector<std::string>{"a.b.c", "plain"}),
              (std::vector<std::string>{"a.b", "plain"}));

    // What the escapes protect: the shell gives the name back unchanged.
    const std::string name = "Tolstoy's \"War & Peace\" (vol 1) $HOME `id`; [ok]?.epub";
    EXPECT_EQ(fs::System("printf '%s' " + fs::AddEscapeSymbols(name)), name);
    EXPECT_EQ(fs::AddEscapeSymbols("a b"), "a\\ b");

    EXPECT_TRUE(fs::IsSDCardMounted("/mnt/ext2"));
    EXPECT_FALSE(fs::IsSDCardMounted("/mnt/ext9"));
    EXPECT_FALSE(fs::IsSDCardMounted("/mnt/ext2\"; touch /tmp/injected; echo \""));
    EXPECT_FALSE(Exists("/tmp/injected"));
    // A mount point with characters a shell would act on is still found.
    const std::string odd = "/tmp/card \"$HOME\" `x`";
    ASSERT_EQ(::mkdir(odd.c_str(), 0755), 0);
    ASSERT_EQ(::mount("tmpfs", odd.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_TRUE(fs::IsSDCardMounted(odd));
    EXPECT_TRUE(fs::IsFileExist("/mnt/ext1"));
}

TEST(Filesystem, PrintableFolderNamesFollowTheInterfaceLanguage) {
    const std::string global = "/mnt/ext1/system/config/global.cfg";
    auto named = [&](const char* language, const std::string& path) {
        std::ofstream(global) << "language=" << language << "\n";
        qvhost_reload_state();
        return fs::GetPrintableFolderName(path);
    };
    EXPECT_EQ(named("en", "/mnt/ext1/Books"), "Internal memory/Books");
    EXPECT_EQ(named("en", "/mnt/ext2"), "SD card");
    EXPECT_EQ(named("de", "/mnt/ext2/Bücher"), "SD-Karte/Bücher");
    EXPECT_EQ(named("ru", "/mnt/ext1/Книги"), "Внутренняя память/Книги");
    EXPECT_EQ(named("pt_BR", "/mnt/ext2/x"), "SD card/x");
    EXPECT_EQ(named("ru", "/tmp/x"), "/tmp/x");
    EXPECT_STREQ(GetLangText("@NoSuchKey"), "@NoSuchKey");
    EXPECT_STREQ(GetLangText("@NotConnected"), "Not connected");  // missing in Russian
}

TEST(Filesystem, TheReaderReadsWholeFilesAndFindsLines) {
    FileSystem file;
    LogCapture log;
    std::string text;
    EXPECT_EQ(file.ReadFile("/mnt/ext1/none", text), -1);
    EXPECT_TRUE(log.Has(kError, PidLine("Condition: \"!file\", return(\"-1\")]")));

    ASSERT_EQ(
        file.WriteFile("/mnt/ext1/lines.txt", std::string("alpha\nbeta 12\n\0gamma\nbeta 7", 27)),
        0);
    std::vector<char> bytes;
    ASSERT_EQ(file.ReadFile("/mnt/ext1/lines.txt", bytes), 0);
    EXPECT_EQ(bytes.size(), 27u);
    EXPECT_TRUE(log.Has(3, PidLine("read file /mnt/ext1/lines.txt\n")));

    std::vector<std::string> lines;
    ASSERT_EQ(file.ReadFile("/mnt/ext1/lines.txt", lines), 0);
    EXPECT_EQ(lines.size(), 4u);
    EXPECT_EQ(file.Find("^beta [0-9]+$"), 1);
    EXPECT_EQ(file.FindNext(), 3);
    EXPECT_EQ(file.FindNext(), -1);
    EXPECT_EQ(file.Find("beta", 2), 3);
    EXPECT_EQ(file.Find("(unclosed"), -1);
    EXPECT_EQ(file.Find("alpha", 4), -1);
    EXPECT_EQ(file.WriteFile("/mnt/ext1/no/dir/file", "x"), -1);
}

}  // namespace
