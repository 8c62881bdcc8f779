// devsandbox: runs a command on a fresh, private copy of the device's file system.
//
//   devsandbox [--image DIR]... [--keep DIR]... [--] COMMAND [ARG]...
//
// The command runs in a private mount namespace (and a private System V IPC namespace) where
// "/mnt/ext1", "/mnt/ext2", "/zelgrot", "/tmp", "/var/run" and "/dev/shm" are new, empty tmpfs
// trees. Nothing the command writes there reaches the host, and every run starts from a clean
// device. The device skeleton is made ("/mnt/ext1/system/config", "/zelgrot/bin", ...), each image
// directory is copied over it in order (an image holds paths relative to "/", such as
// "zelgrot/share/..."), and the system programs the device ships are linked into "/zelgrot/bin".
//
// The host's killall is covered by device_killall (built beside devsandbox), which ends only the
// device's tasks: the sandbox shares the host's processes, and a device's "killall -9 NAME" must
// not reach programs of other sandboxes or of the host.
//
// Directories named with --keep (and the working directory) stay reachable even when they lie
// below one of the covered trees, so a checkout under /tmp still works.
//
// Needs root (CAP_SYS_ADMIN). Exit status: the command's, 125 when the sandbox can't be made,
// 127 when the command can't be run.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kSandboxFailure = 125;
constexpr int kCommandFailure = 127;

struct CoveredTree {
    const char* path;
    const char* options;
};

constexpr CoveredTree kCoveredTrees[] = {
    {"/mnt/ext1", "mode=0755"}, {"/mnt/ext2", "mode=0755"}, {"/zelgrot", "mode=0755"},
    {"/tmp", "mode=1777"},      {"/var/run", "mode=0755"},  {"/dev/shm", "mode=1777"},
};

constexpr const char* kSkeleton[] = {
    "/mnt/ext1/system/config", "/zelgrot/bin", "/zelgrot/lib", "/zelgrot/share", "/zelgrot/config",
};

// Programs of the host that stand in for the device's own: {device path, program name}.
constexpr const char* kSystemPrograms[][2] = {
    {"/zelgrot/bin/sqlite3", "sqlite3"},
};

// Host programs that the sandbox covers with a stand-in of this build, found beside devsandbox:
// {program name, stand-in}. The host's killall would reach processes outside the sandbox.
constexpr const char* kCoveredPrograms[][2] = {
    {"killall", "device_killall"},
};

struct Options {
    std::vector<std::string> images;
    std::vector<std::string> keep;
    std::vector<char*> command;
};

[[noreturn]] void Fail(const std::string& message) {
    std::fprintf(stderr, "devsandbox: %s\n", message.c_str());
    std::exit(kSandboxFailure);
}

std::string ErrnoText() {
    return std::strerror(errno);
}

Options ParseArguments(int argc, char** argv) {
    Options options;
    int i = 1;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if ((arg == "--image" || arg == "--keep") && i + 1 < argc) {
            (arg == "--image" ? options.images : options.keep).push_back(argv[++i]);
        } else if (arg == "-h" || arg == "--help") {
            std::printf(
                "usage: devsandbox [--image DIR]... [--keep DIR]... [--] COMMAND [ARG]...\n");
            std::exit(0);
        } else if (arg.rfind("--", 0) == 0) {
            Fail("unknown option " + arg);
        } else {
            break;
        }
    }
    for (; i < argc; ++i)
        options.command.push_back(argv[i]);
    if (options.command.empty()) Fail("no command given (try --help)");
    options.command.push_back(nullptr);
    return options;
}

void EnterPrivateNamespaces() {
    if (::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) {
        if (errno == EPERM) {
            Fail(
                "the device sandbox needs root: it mounts private tmpfs trees at /mnt/ext1, "
                "/mnt/ext2, /zelgrot, /tmp and /var/run in a new mount namespace "
                "(CAP_SYS_ADMIN). Run as root, for example: sudo ./run test");
        }
        Fail("unshare failed: " + ErrnoText());
    }
    // Nothing mounted from here on may leak back to the host.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        Fail("can't make the mount tree private: " + ErrnoText());
    }
}

bool IsBelow(const fs::path& inner, const fs::path& outer) {
    auto mismatch = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
    return mismatch.first == outer.end();
}

// A directory that must stay reachable once its covering tree is mounted over.
struct KeptDirectory {
    fs::path path;
    int fd;
};

std::vector<KeptDirectory> OpenKeptDirectories(const fs::path& tree,
                                               const std::vector<fs::path>& keep) {
    std::vector<KeptDirectory> kept;
    for (const auto& dir : keep) {
        if (!IsBelow(dir, tree) || dir == tree) continue;
        int fd = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) continue;  // nothing there to keep
        if (fd < 0) Fail("can't open " + dir.string() + ": " + ErrnoText());
        kept.push_back({dir, fd});
    }
    return kept;
}

void MountCoveredTree(const CoveredTree& tree, const std::vector<fs::path>& keep) {
    std::error_code ec;
    fs::create_directories(tree.path, ec);  // the empty mount point, once per host
    fs::path mount_point = fs::canonical(tree.path, ec);
    if (ec) Fail(std::string("can't find ") + tree.path + ": " + ec.message());
    auto kept = OpenKeptDirectories(mount_point, keep);
    if (::mount("devsandbox", mount_point.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, tree.options) !=
        0) {
        Fail(std::string("can't mount a tmpfs at ") + tree.path + ": " + ErrnoText());
    }
    for (const auto& dir : kept) {
        fs::create_directories(dir.path, ec);
        std::string source = "/proc/self/fd/" + std::to_string(dir.fd);
        if (::mount(source.c_str(), dir.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            Fail("can't keep " + dir.path.string() + " reachable: " + ErrnoText());
        }
        ::close(dir.fd);
    }
}

bool IsInsideCoveredTree(const fs::path& path) {
    for (const auto& tree : kCoveredTrees) {
        if (IsBelow(path, tree.path)) return true;
    }
    return false;
}

// Copies an image over "/", refusing anything that would land outside the private trees.
void CopyImage(const fs::path& image) {
    std::error_code ec;
    if (!fs::is_directory(image, ec)) return;  // an image the build has not made yet is empty
    for (auto it = fs::recursive_directory_iterator(image, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        fs::path target = fs::path("/") / fs::relative(it->path(), image);
        if (target == "/README.md") continue;  // the image's own description
        if (!IsInsideCoveredTree(target)) {
            if (it->is_directory()) continue;  // "zelgrot" itself, "mnt", ...
            Fail("image file " + it->path().string() + " would land outside the sandbox");
        }
        if (it->is_directory()) {
            fs::create_directories(target, ec);
        } else {
            fs::copy_file(it->path(), target, fs::copy_options::overwrite_existing, ec);
            if (ec) Fail("can't copy " + it->path().string() + ": " + ec.message());
        }
    }
    if (ec) Fail("can't read image " + image.string() + ": " + ec.message());
}

std::string FindProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        fs::path candidate = fs::path(dirs.substr(start, end - start)) / name;
        if (!IsInsideCoveredTree(candidate) && ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

void CoverHostPrograms() {
    std::error_code ec;
    fs::path own_dir = fs::read_symlink("/proc/self/exe", ec).parent_path();
    for (const auto& program : kCoveredPrograms) {
        std::string host = FindProgram(program[0]);
        fs::path stand_in = own_dir / program[1];
        if (host.empty() || !fs::exists(stand_in, ec)) continue;
        if (::mount(stand_in.c_str(), host.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            Fail("can't cover " + host + ": " + ErrnoText());
        }
    }
}

void PrepareDevice(const Options& options) {
    std::error_code ec;
    for (const char* dir : kSkeleton)
        fs::create_directories(dir, ec);
    for (const auto& image : options.images)
        CopyImage(image);
    for (const auto& program : kSystemPrograms) {
        std::string host = FindProgram(program[1]);
        if (host.empty()) {
            std::fprintf(stderr, "devsandbox: warning: %s not found; %s is missing\n", program[1],
                         program[0]);
            continue;
        }
        fs::create_symlink(host, program[0], ec);
    }
    CoverHostPrograms();
}

}  // namespace

int main(int argc, char** argv) {
    Options options = ParseArguments(argc, argv);
    std::error_code ec;
    fs::path cwd = fs::current_path(ec);

    std::vector<fs::path> keep;
    for (const auto& dir : options.keep)
        keep.push_back(fs::weakly_canonical(dir, ec));
    for (const auto& dir : options.images)
        keep.push_back(fs::weakly_canonical(dir, ec));
    if (!cwd.empty()) keep.push_back(cwd);

    EnterPrivateNamespaces();
    for (const auto& tree : kCoveredTrees)
        MountCoveredTree(tree, keep);
    PrepareDevice(options);

    // Re-enter the working directory: the old one may now be hidden under a tmpfs.
    if (cwd.empty() || ::chdir(cwd.c_str()) != 0) fs::current_path("/", ec);
    ::setenv("QV_SANDBOX", "1", 1);
    ::execvp(options.command[0], options.command.data());
    std::fprintf(stderr, "devsandbox: can't run %s: %s\n", options.command[0], ErrnoText().c_str());
    return kCommandFailure;
}
