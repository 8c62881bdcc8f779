#include "download_test_support.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>

#include "download_pattern.h"

namespace qvtest {

void NotificationRecorder::NotifyDownloaderStatus(void* context) {
    // Allowed here: the downloader holds no lock during a notification.
    Downloader::StatusInfo status = downloader_.GetStatus();
    std::unique_lock<std::mutex> lock(mutex_);
    notifications_.push_back({context, status});
    changed_.notify_all();
    if (!hold_next_) return;
    hold_next_ = false;
    held_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !held_; });
}

std::vector<Notification> NotificationRecorder::Notifications() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return notifications_;
}

size_t NotificationRecorder::Count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return notifications_.size();
}

bool NotificationRecorder::WaitFor(
    const std::function<bool(const std::vector<Notification>&)>& done,
    std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return done(notifications_); });
}

bool NotificationRecorder::WaitForStatus(Downloader::Status status, size_t from,
                                         std::chrono::milliseconds timeout) {
    return WaitFor(
        [status, from](const std::vector<Notification>& all) {
            for (size_t i = from; i < all.size(); ++i) {
                if (all[i].status.status == status) return true;
            }
            return false;
        },
        timeout);
}

bool NotificationRecorder::WaitForCount(size_t count, std::chrono::milliseconds timeout) {
    return WaitFor([count](const std::vector<Notification>& all) { return all.size() >= count; },
                   timeout);
}

void NotificationRecorder::HoldNext() {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_next_ = true;
}

bool NotificationRecorder::WaitUntilHeld(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return held_; });
}

void NotificationRecorder::Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
    changed_.notify_all();
}

std::string FileUrl(const HttpTestServer& server, uint64_t seed, size_t size,
                    const std::string& query) {
    std::string path = "/dl/file/" + std::to_string(seed) + "/" + std::to_string(size);
    return server.Url(query.empty() ? path : path + "?" + query);
}

namespace {

size_t Append(char* data, size_t size, size_t nmemb, void* out) {
    static_cast<std::string*>(out)->append(data, size * nmemb);
    return size * nmemb;
}

std::string Hex(const unsigned char* bytes, unsigned length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

class Sha256 {
public:
    Sha256() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
        EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr);
    }
    void Add(const char* data, size_t length) { EVP_DigestUpdate(context_.get(), data, length); }
    std::string Hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned length = 0;
        EVP_DigestFinal_ex(context_.get(), digest, &length);
        return qvtest::Hex(digest, length);
    }

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context_;
};

}  // namespace

std::string DownloadStat(const HttpTestServer& server, const std::string& key) {
    std::string body;
    CURL* curl = curl_easy_init();
    std::string url = server.Url("/_download_stats");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    std::istringstream lines(body);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(key + " ", 0) == 0) return line.substr(key.size() + 1);
    }
    return "<missing>";
}

std::string Sha256OfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    Sha256 hash;
    std::vector<char> buffer(1 << 16);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        hash.Add(buffer.data(), static_cast<size_t>(in.gcount()));
    }
    return hash.Hex();
}

std::string Sha256OfPattern(uint64_t seed, size_t size) {
    PatternFile pattern(seed);
    Sha256 hash;
    std::vector<char> buffer(1 << 16);
    for (size_t offset = 0; offset < size; offset += buffer.size()) {
        size_t n = std::min(buffer.size(), size - offset);
        pattern.Fill(offset, buffer.data(), n);
        hash.Add(buffer.data(), n);
    }
    return hash.Hex();
}

void WritePatternFile(const std::string& path, uint64_t seed, size_t length) {
    WriteFile(path, PatternFile(seed).Bytes(0, length));
}

bool Exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

off_t FileSize(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

ProgressRecord ReadProgress(const std::string& path) {
    std::string bytes = ReadFile(path);
    ProgressRecord record;
    if (bytes.size() < 8) return record;
    std::memcpy(&record.offset, bytes.data(), 4);
    std::memcpy(&record.total, bytes.data() + 4, 4);
    return record;
}

void WriteProgress(const std::string& path, int32_t offset, int32_t total) {
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &offset, 4);
    std::memcpy(bytes.data() + 4, &total, 4);
    WriteFile(path, bytes);
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

quorvel::utilities::FileToSync Book(const std::string& url, const std::string& name, int32_t size) {
    quorvel::utilities::FileToSync book;
    book.url = url;
    book.name = name;
    book.size = size;
    return book;
}

std::string Temp(const std::string& name) {
    return kDownloadFolder + "/" + name + ".downloading";
}

}  // namespace qvtest
