// qvtool download: a file through the library's Downloader with a live progress line, resumable
// after Ctrl-C; --sync through SyncDownloader; --queue through DownloadManager.
//
// The tool asks the server for the size first (a HEAD request): with a size the Downloader
// reserves the space up front and can resume after an interruption, without one it can do
// neither.

#include <curl/curl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"
#include "common_utilities/download_manager.h"
#include "common_utilities/downloader.h"
#include "common_utilities/sync_downloader.h"
#include "failure_reason.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "progress.h"

namespace qvtool {
namespace {

using quorvel::utilities::Downloader;
using quorvel::utilities::DownloadManager;
using quorvel::utilities::FileToSync;
using quorvel::utilities::IDownloaderCallback;
using quorvel::utilities::SyncDownloader;

constexpr auto kPollInterval = std::chrono::milliseconds(100);
constexpr const char* kUserAgent = "Quorvel";

struct DownloadOptions {
    std::vector<std::string> urls;
    std::string dir;
    std::optional<std::string> name;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::pair<std::string, std::string>> cookie;
    bool sync = false;
    bool queue = false;
};

// ---- Ctrl-C ------------------------------------------------------------------------------------

std::atomic<bool> g_interrupted{false};

void OnInterrupt(int) {
    g_interrupted = true;
}

// SIGINT sets a flag for the waiting loops instead of ending the process: the Downloader is
// stopped properly, so that what arrived stays resumable.
class InterruptFlag {
public:
    InterruptFlag() {
        struct sigaction action {};
        action.sa_handler = OnInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previous_);
    }
    ~InterruptFlag() { sigaction(SIGINT, &previous_, nullptr); }
    InterruptFlag(const InterruptFlag&) = delete;
    InterruptFlag& operator=(const InterruptFlag&) = delete;

    bool raised() const { return g_interrupted; }

private:
    struct sigaction previous_ {};
};

// A failed transfer is told only in the library's log: the last curl code there says why.
constexpr const char* kDownloaderCurlCode = R"(with curl error \[(\d+)\])";

// ---- Options -----------------------------------------------------------------------------------

std::pair<std::string, std::string> SplitHeader(const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
        throw Failure(kUsage, "a header is 'Name: value', not '" + line + "'");
    }
    size_t value = line.find_first_not_of(' ', colon + 1);
    return {line.substr(0, colon), value == std::string::npos ? "" : line.substr(value)};
}

std::pair<std::string, std::string> SplitCookie(const std::string& text) {
    size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0) {
        throw Failure(kUsage, "a cookie is name=value, not '" + text + "'");
    }
    return {text.substr(0, eq), text.substr(eq + 1)};
}

std::string CurrentDirectory() {
    std::vector<char> buffer(PATH_MAX);
    return ::getcwd(buffer.data(), buffer.size()) ? buffer.data() : ".";
}

// The folder must be there, or be one level below one that is (the Downloader makes one level).
void CheckFolder(const std::string& dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) throw Failure(kUsage, dir + " is not a directory");
        return;
    }
    std::string parent = dir.substr(0, dir.find_last_of('/'));
    if (parent.empty()) parent = "/";
    if (dir.find('/') == std::string::npos) parent = ".";
    if (::stat(parent.c_str(), &st) != 0) throw Failure(kNotFound, "no such directory: " + parent);
}

DownloadOptions ReadOptions(Args& args) {
    DownloadOptions options;
    options.sync = args.Flag("--sync");
    options.queue = args.Flag("--queue");
    options.name = args.Option("--name");
    for (const auto& line : args.Options("-H"))
        options.headers.push_back(SplitHeader(line));
    if (auto cookie = args.Option("--cookie")) options.cookie = SplitCookie(*cookie);
    std::optional<std::string> dir = args.Option("--dir");
    if (options.sync && options.queue)
        throw Failure(kUsage, "--sync and --queue exclude each other");
    if (options.queue) {
        if (options.name) throw Failure(kUsage, "--name names one file; not with --queue");
        while (auto url = args.NextOptional())
            options.urls.push_back(*url);
        if (options.urls.empty()) throw Failure(kUsage, "missing URL");
    } else {
        options.urls.push_back(args.Next("URL"));
        if (auto positional = args.NextOptional()) {
            if (dir) throw Failure(kUsage, "DIR given twice");
            dir = positional;
        }
    }
    args.Done();
    options.dir = dir ? *dir : CurrentDirectory();
    while (options.dir.size() > 1 && options.dir.back() == '/')
        options.dir.pop_back();
    if (options.name && (options.name->empty() || options.name->find('/') != std::string::npos)) {
        throw Failure(kUsage, "--name is a file name, without a directory");
    }
    CheckFolder(options.dir);
    return options;
}

// The last segment of the URL's path, decoded; "index.html" when the path names no file.
std::string NameFromUrl(const std::string& url) {
    std::string path = url.substr(0, url.find_first_of("?#"));
    size_t scheme = path.find("://");
    size_t start = scheme == std::string::npos ? 0 : path.find('/', scheme + 3);
    std::string last;
    if (start != std::string::npos) last = path.substr(path.find_last_of('/') + 1);
    int length = 0;
    char* decoded =
        curl_easy_unescape(nullptr, last.c_str(), static_cast<int>(last.size()), &length);
    std::string name = decoded ? std::string(decoded, static_cast<size_t>(length)) : last;
    curl_free(decoded);
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        return "index.html";
    }
    return name;
}

// ---- The size, asked first -----------------------------------------------------------------

size_t Discard(char*, size_t size, size_t nmemb, void*) {
    return size * nmemb;
}

// The length a HEAD request reports, as the Downloader would reach the server; 0 when the server
// doesn't say (or can't be asked: the download itself then tells why).
int32_t AskSize(const std::string& url, const DownloadOptions& options) {
    CURL* curl = curl_easy_init();
    if (!curl) return 0;
    curl_slist* headers = nullptr;
    for (const auto& [name, value] : options.headers)
        headers = curl_slist_append(headers, (name + ": " + value).c_str());
    std::string cookie = options.cookie ? options.cookie->first + "=" + options.cookie->second : "";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Discard);
    if (headers) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (!cookie.empty()) curl_easy_setopt(curl, CURLOPT_COOKIE, cookie.c_str());
    char* proxy = get_proxy();
    if (proxy) curl_easy_setopt(curl, CURLOPT_PROXY, proxy);
    clean_proxy_object(&proxy);

    curl_off_t length = -1;
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK) {
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    if (status != 200 || length <= 0) return 0;
    if (length > INT32_MAX) {
        throw Failure(kFailed, "the file has " + std::to_string(length) +
                                   " bytes; a download holds at most 2 GiB");
    }
    return static_cast<int32_t>(length);
}

FileToSync Item(const std::string& url, const std::optional<std::string>& name,
                const DownloadOptions& options) {
    FileToSync item;
    item.url = url;
    item.name = name ? *name : NameFromUrl(url);
    item.size = AskSize(url, options);
    return item;
}

// ---- Outcomes ------------------------------------------------------------------------------

void PrintSaved(const std::string& path, int http_code) {
    std::cout << path << std::endl;
    std::cerr << "status " << http_code
              << (http_code == 0 ? " (complete already: nothing was fetched)" : "") << '\n';
}

[[noreturn]] void FailHttp(int http_code) {
    std::string message = "the server answered " + std::to_string(http_code);
    throw Failure(http_code == 404 || http_code == 410 ? kNotFound : kFailed, message);
}

// ---- One file, resumable -------------------------------------------------------------------

// Wakes the polling loop at each change, so the end shows at once.
class Wakeup : public IDownloaderCallback {
public:
    void NotifyDownloaderStatus(void*) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++changes_;
        changed_.notify_all();
    }
    void WaitBriefly() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kPollInterval, [&] { return changes_ != seen_; });
        seen_ = changes_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    long changes_ = 0;
    long seen_ = 0;
};

// Where an earlier run stopped, as its progress record says (the Downloader decides whether the
// record holds; this is only for the user). 0 when there is nothing to resume.
int32_t RecordedOffset(const std::string& dir, const FileToSync& item) {
    std::string path = dir + "/" + item.name + ".downloading.progress";
    int32_t offset = 0;
    FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return 0;
    if (std::fread(&offset, sizeof offset, 1, file) != 1) offset = 0;
    std::fclose(file);
    return item.size > 0 && offset > 0 && offset <= item.size ? offset : 0;
}

bool IsTerminal(Downloader::Status status) {
    return status == Downloader::DS_Finished || status == Downloader::DS_Error ||
           status == Downloader::DS_Aborted;
}

int ReportInterrupted(const Downloader::StatusInfo& status, const FileToSync& item) {
    std::cerr << "qvtool: download: interrupted at " << FormatBytes(status.current);
    if (item.size > 0) {
        std::cerr << " of " << FormatBytes(item.size) << "; run the same command again to resume\n";
    } else {
        std::cerr << "; the server gave no size, so a new run starts over\n";
    }
    return kInterrupted;
}

int DownloadOne(const DownloadOptions& options) {
    InterruptFlag interrupt;
    FailureReason reason(kDownloaderCurlCode);
    FileToSync item = Item(options.urls.front(), options.name, options);
    Wakeup wakeup;
    Downloader downloader;
    if (downloader.Init(&wakeup) != QV_OK) throw Failure(kFailed, "the downloader can't start");
    for (const auto& [name, value] : options.headers)
        downloader.AddHeader(name, value);
    if (options.cookie) downloader.SetCookie(options.cookie->first, options.cookie->second);
    int32_t resumed = RecordedOffset(options.dir, item);
    int rc = downloader.Start(item, options.dir, nullptr);
    if (rc != QV_OK)
        throw Failure(kFailed, "the download was refused (" + std::to_string(rc) + ")");

    Progress progress(item.name, static_cast<uint64_t>(item.size), Progress::Unit::kBytes);
    if (resumed > 0) {
        std::cerr << "resuming " << item.name << " at " << FormatBytes(resumed) << '\n';
        progress.StartFrom(static_cast<uint64_t>(resumed));
    }
    Downloader::StatusInfo status = downloader.GetStatus();
    while (!IsTerminal(status.status)) {
        if (interrupt.raised()) {
            downloader.Stop();
            progress.Finish();
            return ReportInterrupted(downloader.GetStatus(), item);
        }
        wakeup.WaitBriefly();
        status = downloader.GetStatus();
        if (status.total > 0) progress.SetTotal(static_cast<uint64_t>(status.total));
        // Until the worker has read the record, the count starts at 0 rather than where it
        // resumes.
        if (status.current > 0 || resumed == 0) {
            progress.Update(static_cast<uint64_t>(status.current));
        }
    }
    progress.Finish();

    if (status.status == Downloader::DS_Finished) {
        downloader.Cleanup(item);
        std::string path = downloader.GetFinalPath();
        if (path.empty()) {
            throw Failure(kFailed,
                          "the file is complete but can't be moved to its name in " + options.dir);
        }
        PrintSaved(path, status.http_code);
        return kOk;
    }
    if (status.error == Downloader::kErrorHttp) {
        downloader.CleanupOnErr(item);  // it holds the server's error page, not the file
        FailHttp(status.http_code);
    }
    if (status.error == Downloader::kErrorSpace) {
        throw Failure(kFailed,
                      "not enough space in " + options.dir + " for " + FormatBytes(item.size));
    }
    if (status.current == 0) downloader.CleanupOnErr(item);  // nothing worth keeping
    std::string kept = status.current > 0 && item.size > 0
                           ? "; what arrived is kept, run the same command again to resume"
                           : "";
    throw Failure(kFailed, "the transfer failed: " + reason.Describe() + kept);
}

// ---- One file, blocking --------------------------------------------------------------------

int DownloadSync(const DownloadOptions& options) {
    InterruptFlag interrupt;
    FailureReason reason(kDownloaderCurlCode);
    const std::string url = options.urls.front();
    const std::string name = options.name ? *options.name : NameFromUrl(url);
    SyncDownloader sync(options.dir);
    for (const auto& [header, value] : options.headers)
        sync.AddHeader(header, value);
    if (options.cookie)
        sync.AddHeader("Cookie", options.cookie->first + "=" + options.cookie->second);

    // The caller's thread blocks in Download; this one draws progress and passes Ctrl-C on.
    std::atomic<bool> done{false};
    std::atomic<bool> cancelled{false};
    std::thread watcher([&] {
        Progress progress(name, 0, Progress::Unit::kBytes);
        while (!done) {
            std::this_thread::sleep_for(kPollInterval);
            if (done) {
                // Where the download ended, however quick it was.
                Downloader::StatusInfo last = sync.GetLastStatus();
                if (last.total > 0) progress.SetTotal(static_cast<uint64_t>(last.total));
                progress.Update(static_cast<uint64_t>(last.current));
                break;
            }
            if (interrupt.raised() && !cancelled) cancelled = sync.CancelCurrent() == QV_OK;
            bool active = false;
            std::string current_url;
            int total = 0, current = 0;
            sync.GetProgress(&active, &current_url, &total, &current);
            if (!active) continue;
            if (total > 0) progress.SetTotal(static_cast<uint64_t>(total));
            progress.Update(static_cast<uint64_t>(current));
        }
        progress.Finish();
    });
    int rc = sync.Download(url, name);
    done = true;
    watcher.join();

    if (rc == 0) {
        PrintSaved(sync.GetLastPath(), sync.GetLastStatus().http_code);
        return kOk;
    }
    Downloader::StatusInfo last = sync.GetLastStatus();
    if (cancelled || interrupt.raised()) {
        std::cerr << "qvtool: download: interrupted; a blocking download keeps nothing\n";
        return kInterrupted;
    }
    if (rc != -1) throw Failure(kFailed, "the download was refused (" + std::to_string(rc) + ")");
    if (last.error == Downloader::kErrorHttp) FailHttp(last.http_code);
    throw Failure(kFailed, "the transfer failed: " + reason.Describe());
}

// ---- Several files, queued -----------------------------------------------------------------

struct Completion {
    int result;
    FileToSync item;
    std::string path;
};

int DownloadQueue(const DownloadOptions& options) {
    InterruptFlag interrupt;
    FailureReason reason(kDownloaderCurlCode);
    std::vector<FileToSync> items;
    for (const auto& url : options.urls)
        items.push_back(Item(url, std::nullopt, options));

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Completion> completions;
    auto manager = std::make_unique<DownloadManager>();
    if (manager->Init(options.dir) != 0) throw Failure(kFailed, "the download queue can't start");
    for (const auto& [name, value] : options.headers)
        manager->AddHeader(name, value);
    if (options.cookie) manager->SetCookie(options.cookie->first, options.cookie->second);
    DownloadManager* raw = manager.get();
    for (const auto& item : items) {
        manager->AddItem(item, [&, raw](int result, const FileToSync& done) {
            std::string path = result == 0 ? raw->GetFinalPath() : "";
            std::lock_guard<std::mutex> lock(mutex);
            completions.push_back({result, done, path});
            changed.notify_all();
        });
    }

    size_t reported = 0;
    int failed = 0;
    while (reported < items.size()) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, kPollInterval, [&] { return completions.size() > reported; });
        for (; reported < completions.size(); ++reported) {
            const Completion& c = completions[reported];
            if (c.result == 0) {
                std::cout << "done " << c.path << std::endl;
            } else {
                ++failed;
                std::cout << "failed " << c.item.name << " (" << c.item.url << ")" << std::endl;
            }
        }
        if (interrupt.raised()) {
            lock.unlock();
            manager.reset();  // the transfer under way stops with its files kept
            std::cerr << "qvtool: download: interrupted; " << items.size() - reported
                      << " not done\n";
            return kInterrupted;
        }
    }
    if (failed > 0) {
        throw Failure(kFailed, std::to_string(failed) + " of " + std::to_string(items.size()) +
                                   " failed; see --verbose for why");
    }
    return kOk;
}

int RunDownload(Args& args) {
    DownloadOptions options = ReadOptions(args);
    if (options.queue) return DownloadQueue(options);
    if (options.sync) return DownloadSync(options);
    return DownloadOne(options);
}

const bool registered = Register(
    {"download", "download files through the library's resumable downloader",
     "usage: qvtool download URL [DIR] [--name NAME] [-H 'Name: value']... [--cookie n=v]\n"
     "       qvtool download --sync URL [DIR] [--name NAME] [-H ...] [--cookie n=v]\n"
     "       qvtool download --queue URL... [--dir DIR] [-H ...] [--cookie n=v]\n"
     "Downloads into DIR (default: the current directory; made when missing, one level),\n"
     "under the last segment of the URL's path or NAME. A name already taken becomes\n"
     "NAME_1, NAME_2, ... The final path goes to standard output, \"status N\" (the HTTP\n"
     "status) to standard error.\n"
     "  (default)  Downloader: a progress line while it runs. Ctrl-C stops it and keeps\n"
     "             NAME.downloading and NAME.downloading.progress; the same command then\n"
     "             resumes where it stopped (when the server tells the size).\n"
     "  --sync     SyncDownloader: blocks until done; Ctrl-C cancels and keeps nothing.\n"
     "  --queue    DownloadManager: the URLs one after the other, a line \"done PATH\" or\n"
     "             \"failed NAME (URL)\" as each ends; a failure doesn't stop the rest.\n"
     "  -H 'Name: value'  a request header (repeatable)\n"
     "  --cookie n=v      a cookie sent with the requests\n"
     "Exit codes: 0 done, 1 failed (3 when the server answers 404 or 410), 2 bad command\n"
     "line, 3 DIR's parent missing, 130 interrupted.\n",
     RunDownload});

}  // namespace
}  // namespace qvtool
