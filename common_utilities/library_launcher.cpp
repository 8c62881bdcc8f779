#include "common_utilities/library_launcher.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace quorvel {
namespace utilities {

LibraryLauncher::LibraryLauncher(const std::string& path)
    : path_(path),
      names_{{eSetParameters, "QVLibrary_SetParameters"},
             {eRun, "QVLibrary_Run"},
             {eGetStatus, "QVLibrary_GetStatus"},
             {eGetResult, "QVLibrary_GetResult"},
             {eSetNotificationFlag, "QVLibrary_SetNotificationFlag"},
             {eAddNotification, "QVLibrary_AddNotification"}} {}

LibraryLauncher::~LibraryLauncher() {
    if (handle_) dlclose(handle_);
}

bool LibraryLauncher::LoadLibrary(int flags) {
    if (handle_) return true;
    if (path_.empty()) throw std::runtime_error("Library path is empty");
    handle_ = dlopen(path_.c_str(), flags);
    if (!handle_) {
        const int error = errno;
        const char* reason = dlerror();
        std::fprintf(stderr, "Could not attach %s, errno=%i desription = %s\n", path_.c_str(),
                     error, reason ? reason : "");
        return false;
    }
    return true;
}

void LibraryLauncher::ChangeFunctionName(eFunction function, const std::string& name) {
    if (name.empty()) throw std::runtime_error("Function name is empty");
    auto& current = names_[function];
    if (current == name) return;
    current = name;
    functions_.erase(function);
}

void* LibraryLauncher::Resolve(eFunction function) {
    if (!handle_) throw std::runtime_error("Library does not load or found");
    void*& entry = functions_[function];
    if (!entry) entry = dlsym(handle_, names_[function].c_str());
    if (!entry) throw std::runtime_error("Function does not found");
    return entry;
}

void LibraryLauncher::SetParameters(int argc, const char* const* argv) {
    Function<void(int, const char* const*)>(eSetParameters)(argc, argv);
}

void LibraryLauncher::Run() {
    Function<void()>(eRun)();
}

int LibraryLauncher::GetStatus() {
    return Function<int()>(eGetStatus)();
}

int LibraryLauncher::GetResult() {
    return Function<int()>(eGetResult)();
}

void LibraryLauncher::SetNotificationFlag(bool flag) {
    Function<void(bool)>(eSetNotificationFlag)(flag);
}

void LibraryLauncher::AddNotification() {
    Function<void()>(eAddNotification)();
}

}  // namespace utilities
}  // namespace quorvel
