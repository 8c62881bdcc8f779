#include "cover_maker.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "epub_package.h"

extern char** environ;

namespace qvscanner {
namespace {

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string ExtensionOf(const std::string& path) {
    auto slash = path.rfind('/');
    auto dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    return Lower(path.substr(dot + 1));
}

void MakeParentDirs(const std::string& path) {
    for (size_t pos = 1; pos < path.size(); ++pos) {
        if (path[pos] == '/') ::mkdir(path.substr(0, pos).c_str(), 0755);
    }
}

// A private folder for the intermediate files of one job, removed with everything in it.
class WorkDir {
public:
    WorkDir() {
        char name[] = "/tmp/adobescanner.XXXXXX";
        if (::mkdtemp(name)) path_ = name;
    }
    ~WorkDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;
    bool ok() const { return !path_.empty(); }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Output of a program, or nothing when it failed.
bool Capture(const std::vector<std::string>& argv, std::string* output) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    int err = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (err == 0) {
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
            if (n > 0) output->append(buffer, static_cast<size_t>(n));
        }
    }
    ::close(fds[0]);
    if (err != 0) return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The picture of the first page (or the cover image) of `job.book`, in any format convert
// reads, in `work`; empty when there is none.
std::string ExtractPicture(const ScanJob& job, const WorkDir& work, std::string* title,
                           std::string* author) {
    std::string ext = ExtensionOf(job.book);
    std::string box = std::to_string(std::max(job.width, job.height));
    if (ext == "pdf") {
        std::string base = work.File("page");
        bool ok = RunQuietly({"pdftoppm", "-f", "1", "-l", "1", "-singlefile", "-png", "-scale-to",
                              box, "--", job.book, base});
        return ok ? base + ".png" : "";
    }
    if (ext == "djvu" || ext == "djv") {
        std::string out = work.File("page.pnm");
        bool ok =
            RunQuietly({"ddjvu", "-format=pnm", "-page=1",
                        "-size=" + std::to_string(job.width) + "x" + std::to_string(job.height),
                        job.book, out});
        return ok ? out : "";
    }
    if (ext == "epub") {
        auto package = ReadEpubPackage(job.book);
        if (!package) return "";
        *title = package->title;
        *author = package->author;
        auto image = package->cover_path.empty() ? std::nullopt
                                                 : ReadZipMember(job.book, package->cover_path);
        if (!image) return "";
        std::string out = work.File("cover." + ExtensionOf(package->cover_path));
        std::ofstream file(out, std::ios::binary);
        file << *image;
        return file.flush() ? out : "";
    }
    for (const char* image : {"png", "jpg", "jpeg", "bmp", "tif", "tiff", "gif"}) {
        if (ext == image) return job.book;
    }
    return "";
}

std::string InfoField(const std::string& info, const std::string& name) {
    std::istringstream lines(info);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, name.size() + 1, name + ":") != 0) continue;
        auto start = line.find_first_not_of(' ', name.size() + 1);
        return start == std::string::npos ? "" : line.substr(start);
    }
    return "";
}

void WriteMetadata(const ScanJob& job, std::string title, std::string author) {
    std::string pages;
    std::string ext = ExtensionOf(job.book);
    std::string info;
    if (ext == "pdf" && Capture({"pdfinfo", "--", job.book}, &info)) {
        title = InfoField(info, "Title");
        author = InfoField(info, "Author");
        pages = InfoField(info, "Pages");
    } else if ((ext == "djvu" || ext == "djv") &&
               Capture({"djvused", job.book, "-e", "n"}, &info)) {
        pages = info.substr(0, info.find('\n'));
    }
    std::string path = job.cache_path;
    if (path.size() > 4 && path.compare(path.size() - 4, 4, ".png") == 0)
        path.resize(path.size() - 4);
    path += ".metadata";
    std::string temp = path + ".part";
    {
        std::ofstream out(temp, std::ios::trunc);
        for (std::string* value : {&title, &author}) {
            for (char& c : *value)
                if (c == '\n' || c == '\r') c = ' ';
        }
        out << "title=" << title << "\nauthor=" << author << "\npages=" << pages << "\n";
        if (!out.flush()) return;
    }
    std::rename(temp.c_str(), path.c_str());
}

}  // namespace

bool RunQuietly(const std::vector<std::string>& argv) {
    std::string ignored;
    return Capture(argv, &ignored);
}

bool ParseScanJob(const std::vector<std::string>& words, ScanJob* job) {
    if (words.size() < 4 || words.size() > 5) return false;
    if (words.size() == 5 && words[4] != "-metadata") return false;
    char* end = nullptr;
    long width = std::strtol(words[2].c_str(), &end, 10);
    if (*end != '\0') return false;
    long height = std::strtol(words[3].c_str(), &end, 10);
    if (*end != '\0' || width < 1 || height < 1 || width > 10000 || height > 10000) return false;
    if (words[0].empty() || words[1].empty()) return false;
    *job = ScanJob{words[0], words[1], static_cast<int>(width), static_cast<int>(height),
                   words.size() == 5};
    return true;
}

bool MakeCover(const ScanJob& job) {
    WorkDir work;
    if (!work.ok()) return false;
    std::string title, author;
    std::string picture = ExtractPicture(job, work, &title, &author);
    if (job.metadata) {
        MakeParentDirs(job.cache_path);
        WriteMetadata(job, title, author);
    }
    if (picture.empty()) return false;
    MakeParentDirs(job.cache_path);
    // Written beside the target and renamed: a reader sees no file or the whole new one. The
    // first frame only ("[0]"): an animated or layered picture gives one cover.
    std::string temp = job.cache_path + ".part";
    std::string geometry = std::to_string(job.width) + "x" + std::to_string(job.height);
    if (!RunQuietly({"convert", picture + "[0]", "-resize", geometry, "-strip", "PNG:" + temp}) ||
        std::rename(temp.c_str(), job.cache_path.c_str()) != 0) {
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

}  // namespace qvscanner
