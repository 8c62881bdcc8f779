// The system channel of the host platform. There is no device shell on a host: commands are
// delivered nowhere, but each call is recorded in a log that every process of the sandbox shares,
// so that a test can see that a process sent, say, command 272. Requests 260 (encipher) and 261
// (decipher) go to the secure service (secure_service.cpp).

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"
#include "secure_service.h"

namespace {

// One write(2) per record on an O_APPEND descriptor: records of concurrent processes never mix.
void Record(const char* kind, int cmd, int arg) {
    char line[96];
    int n = std::snprintf(line, sizeof line, "%s %d %d %d\n", kind, cmd, arg,
                          static_cast<int>(::getpid()));
    qvhost::EnsureStateDir();
    int fd = ::open(qvhost_ipc_log_path(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ssize_t written = ::write(fd, line, static_cast<size_t>(n));
    (void)written;
    ::close(fd);
}

}  // namespace

extern "C" {

int mg_ipc_cmd(int cmd, int arg) {
    Record("cmd", cmd, arg);
    return 0;
}

int mg_ipc_request(int cmd, int arg, void* buffer, int input_length, int capacity) {
    Record("request", cmd, arg);
    if (!buffer || input_length < 0 || capacity < input_length) return -1;
    return qvhost::SecureRequest(cmd, static_cast<char*>(buffer), input_length, capacity);
}

const char* qvhost_ipc_log_path(void) {
    thread_local std::string path;
    path = qvhost::StatePath("ipc.log");
    return path.c_str();
}

int qvhost_ipc_count(int cmd) {
    std::ifstream in(qvhost_ipc_log_path());
    if (!in) return 0;
    int count = 0;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string kind;
        int recorded = 0;
        if (fields >> kind >> recorded && recorded == cmd) ++count;
    }
    return count;
}

void qvhost_ipc_clear(void) {
    int rc = ::truncate(qvhost_ipc_log_path(), 0);
    (void)rc;
}

}  // extern "C"
