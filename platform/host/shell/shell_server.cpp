#include "shell_server.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "host_state.h"
#include "moorglass.h"

namespace qvhost {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(5);

int32_t LoadStatus(const int32_t* field) {
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

void StoreStatus(int32_t* field, int32_t value) {
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\t')
            out += "\\t";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\\')
            out += "\\\\";
        else
            out += c;
    }
    return out;
}

void AppendLog(const std::vector<std::string>& fields) {
    std::string line;
    for (const std::string& field : fields)
        line += (line.empty() ? "" : "\t") + Escape(field);
    line += '\n';
    EnsureStateDir();
    int fd =
        ::open(ShellServer::LogPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t written = ::write(fd, line.data(), line.size());
    (void)written;
    ::close(fd);
}

int ButtonNumber(int answer) {
    if (answer == MG_UIANSWER_BUTTON1) return 1;
    if (answer == MG_UIANSWER_BUTTON2) return 2;
    return 0;
}

int AnswerOf(int button) {
    if (button == 1) return MG_UIANSWER_BUTTON1;
    if (button == 2) return MG_UIANSWER_BUTTON2;
    return MG_UIANSWER_NONE;
}

}  // namespace

bool ParseShellRequest(int query, const unsigned char* body, size_t size, ShellRequest* request) {
    int ints = query == MG_UIQUERY_MESSAGE    ? 4
               : query == MG_UIQUERY_DIALOG   ? 5
               : query == MG_UIQUERY_OPENBOOK ? 1
                                              : 0;
    if (ints == 0 || size < ints * sizeof(int32_t)) return false;
    std::vector<int32_t> fields(ints);
    std::memcpy(fields.data(), body, ints * sizeof(int32_t));
    std::vector<int32_t> lengths;
    request->query = query;
    if (query == MG_UIQUERY_OPENBOOK) {
        lengths = {fields[0]};
    } else {
        request->icon = fields[0];
        lengths.assign(fields.begin() + 1, fields.begin() + (query == MG_UIQUERY_MESSAGE ? 3 : 5));
        if (query == MG_UIQUERY_MESSAGE) request->timeout = fields[3];
    }
    size_t pos = ints * sizeof(int32_t);
    request->texts.clear();
    for (int32_t length : lengths) {
        // Each length counts the terminator, which must stand where it says.
        if (length < 1 || static_cast<size_t>(length) > size - pos || body[pos + length - 1] != 0) {
            return false;
        }
        const char* text = reinterpret_cast<const char*>(body + pos);
        if (std::strlen(text) != static_cast<size_t>(length - 1)) return false;
        request->texts.emplace_back(text);
        pos += length;
    }
    return true;
}

ShellServer::ShellServer(Options options) : options_(std::move(options)) {}

std::string ShellServer::LogPath() {
    return StatePath("shell.log");
}

bool ShellServer::ServeOnce() {
    if (mgmpc == nullptr) return false;
    int32_t query = LoadStatus(&mgmpc->uiquery);
    if (query == MG_UIQUERY_FREE || LoadStatus(&mgmpc->uistatus) != MG_UISTATUS_PENDING) {
        return false;
    }
    ShellRequest request;
    if (!ParseShellRequest(query, mgmpc->uibody, sizeof mgmpc->uibody, &request)) {
        AppendLog({"bad", std::to_string(query)});
        int32_t status =
            query == MG_UIQUERY_MESSAGE ? int32_t{MG_UISTATUS_SHOWN} : int32_t{MG_UIANSWER_FAILED};
        StoreStatus(&mgmpc->uistatus, status);
        return true;
    }
    StoreStatus(&mgmpc->uistatus, MG_UISTATUS_SHOWN);
    Show(request);
    const auto& t = request.texts;
    if (query == MG_UIQUERY_MESSAGE) {
        AppendLog(
            {"message", std::to_string(request.icon), t[0], t[1], std::to_string(request.timeout)});
    } else if (query == MG_UIQUERY_DIALOG) {
        int answer = AnswerDialog(request);
        AppendLog({"dialog", std::to_string(request.icon), t[0], t[1], t[2], t[3],
                   std::to_string(ButtonNumber(answer))});
        StoreStatus(&mgmpc->uistatus, answer);
    } else {
        int result = OpenBook(request);
        AppendLog({"open", t[0], result == MG_UIANSWER_OPENED ? "opened" : "missing"});
        StoreStatus(&mgmpc->uistatus, result);
    }
    return true;
}

bool ShellServer::Run(const std::atomic<bool>& stop) {
    if (mgmpc == nullptr) return false;
    while (!stop.load()) {
        if (!ServeOnce()) std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

int ShellServer::AnswerDialog(const ShellRequest& request) {
    if (!options_.script.empty()) {
        int button = options_.script.front();
        options_.script.pop_front();
        return AnswerOf(button);
    }
    if (options_.ask) {
        int button = options_.ask(request);
        if (button >= 0) return AnswerOf(button);
    }
    return AnswerOf(options_.fallback_answer);
}

int ShellServer::OpenBook(const ShellRequest& request) {
    struct stat info;
    bool exists = ::stat(request.texts[0].c_str(), &info) == 0 && S_ISREG(info.st_mode);
    return exists ? MG_UIANSWER_OPENED : MG_UIANSWER_FAILED;
}

void ShellServer::Show(const ShellRequest& request) const {
    if (options_.out == nullptr) return;
    std::ostream& out = *options_.out;
    const auto& t = request.texts;
    if (request.query == MG_UIQUERY_OPENBOOK) {
        out << "[open] " << t[0] << std::endl;
        return;
    }
    out << (request.query == MG_UIQUERY_MESSAGE ? "[message] " : "[dialog] ") << t[0] << "  (icon "
        << request.icon;
    if (request.query == MG_UIQUERY_MESSAGE) out << ", " << request.timeout << " ms";
    out << ")\n    " << t[1] << '\n';
    if (request.query == MG_UIQUERY_DIALOG) out << "    [1] " << t[2] << "   [2] " << t[3] << '\n';
    out.flush();
}

int AskOnTerminal(const ShellRequest& request, std::istream& in, std::ostream& out) {
    for (;;) {
        out << "    answer 1 (" << request.texts[2] << "), 2 (" << request.texts[3]
            << ") or 0 (none): " << std::flush;
        std::string line;
        if (!std::getline(in, line)) return -1;
        if (line == "1" || line == "2" || line == "0") return line[0] - '0';
    }
}

bool ParseAnswerScript(const std::string& text, std::deque<int>* script) {
    std::string item;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != ',' && text[i] != '\n') {
            item += text[i];
            continue;
        }
        if (item.empty() && i == text.size()) break;
        if (item != "0" && item != "1" && item != "2") return false;
        script->push_back(item[0] - '0');
        item.clear();
    }
    return true;
}

std::vector<std::string> SplitShellLogLine(const std::string& line) {
    std::vector<std::string> fields(1);
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\t') {
            fields.emplace_back();
        } else if (c == '\\' && i + 1 < line.size()) {
            char next = line[++i];
            fields.back() += next == 't' ? '\t' : next == 'n' ? '\n' : next;
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

}  // namespace qvhost
