// browser.app for the host: a small stand-in for the device's browser in the sign-in flow.
//
//   browser.app -social -notification_id ID [EXTRA]... URL
//
// It loads URL over HTTP and does what the page says, one instruction a line, reporting to the
// application that opened it over the abstract datagram socket "browser_notification" + ID:
//
//   text WORDS      sends a text message (type 0) with WORDS; "text" alone sends an empty one
//   notice          sends a notice (type 2)
//   complete        sends completion (type 1)
//   type N [BYTES]  sends a message of type byte N with BYTES as its payload
//   args            sends a text with the command line it was given, blank-separated
//   sleep MS        waits MS milliseconds
//   die             ends at once with status 3, as a crashing browser would
//   hang            stays open doing nothing, until it is closed
//
// Unknown lines are skipped. After the last line the browser stays open, as a browser showing a
// page does, until it is closed (SIGTERM). A page that can't be loaded ends it with status 2; a
// bad command line with status 64.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kBadCommandLine = 64;
constexpr int kPageNotLoaded = 2;
constexpr int kDied = 3;
constexpr long kLoadTimeoutSeconds = 30;

struct CommandLine {
    std::string id;
    std::string url;
    std::vector<std::string> all;
};

bool Parse(int argc, char** argv, CommandLine* line) {
    for (int i = 1; i < argc; ++i)
        line->all.push_back(argv[i]);
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "-notification_id") == 0) line->id = argv[i + 1];
    }
    if (argc < 2 || line->id.empty()) return false;
    line->url = argv[argc - 1];
    return true;
}

size_t Collect(char* data, size_t size, size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

bool Load(const std::string& url, std::string* page) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return false;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, page);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kLoadTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "127.0.0.1,localhost");
    CURLcode result = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    if (result != CURLE_OK) {
        std::fprintf(stderr, "browser.app: can't load %s: %s\n", url.c_str(),
                     curl_easy_strerror(result));
    }
    return result == CURLE_OK;
}

class Reporter {
public:
    explicit Reporter(const std::string& id) : socket_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
        std::string name = std::string(1, '\0') + "browser_notification" + id;
        address_.sun_family = AF_UNIX;
        name.resize(std::min(name.size(), sizeof(address_.sun_path)));
        std::memcpy(address_.sun_path, name.data(), name.size());
        length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    }
    ~Reporter() { ::close(socket_); }

    void Send(int type, const std::string& payload) {
        std::string message(1, static_cast<char>(type));
        message += payload;
        if (::sendto(socket_, message.data(), message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&address_), length_) < 0) {
            std::perror("browser.app: sendto");
        }
    }

private:
    int socket_;
    sockaddr_un address_{};
    socklen_t length_ = 0;
};

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// Runs one line of the page; false when the browser is to stop reading it.
bool Follow(const std::string& line, const CommandLine& command, Reporter* reporter) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    std::string rest;
    std::getline(words >> std::ws, rest);
    if (verb == "text") reporter->Send(0, rest);
    if (verb == "complete") reporter->Send(1, "");
    if (verb == "notice") reporter->Send(2, "");
    if (verb == "args") reporter->Send(0, Joined(command.all));
    if (verb == "type") {
        std::istringstream fields(rest);
        int type = 0;
        fields >> type;
        std::string payload;
        std::getline(fields >> std::ws, payload);
        reporter->Send(type, payload);
    }
    if (verb == "sleep") ::usleep(static_cast<useconds_t>(std::atol(rest.c_str())) * 1000);
    if (verb == "die") std::_Exit(kDied);
    return verb != "hang";
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine command;
    if (!Parse(argc, argv, &command)) {
        std::fprintf(stderr, "usage: browser.app -social -notification_id ID [EXTRA]... URL\n");
        return kBadCommandLine;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    std::string page;
    if (!Load(command.url, &page)) return kPageNotLoaded;
    Reporter reporter(command.id);
    std::istringstream lines(page);
    std::string line;
    while (std::getline(lines, line) && Follow(line, command, &reporter)) {
    }
    for (;;) ::pause();  // open until closed
}
