// The shell's status indicator. A host has no status bar: the value lives in "indicator" of the
// state directory, so that the tool and the tests of any process of the device can read what the
// services last showed. It is written beside and renamed over, so a reader sees one value whole.

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "host_state.h"
#include "moorglass.h"
#include "moorglass_host.h"

extern "C" {

const char* qvhost_tarvey_status_path(void) {
    thread_local std::string path;
    path = qvhost::StatePath("indicator");
    return path.c_str();
}

int mg_set_tarvey_status(int status) {
    qvhost::EnsureStateDir();
    std::string path = qvhost_tarvey_status_path();
    std::string temporary = path + "." + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    std::string text = std::to_string(status) + "\n";
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return -1;
    }
    return 0;
}

int qvhost_tarvey_status(void) {
    FILE* file = std::fopen(qvhost_tarvey_status_path(), "r");
    if (!file) return -1;
    int status = -1;
    if (std::fscanf(file, "%d", &status) != 1) status = -1;
    std::fclose(file);
    return status;
}

}  // extern "C"
