// LibraryLauncher: calls a plug-in shared library through the device's fixed C interface.
//
// A plug-in exports up to six C functions; each is looked up when first called, so a plug-in
// that lacks an optional one still serves the others:
//
//     void QVLibrary_SetParameters(int argc, const char* const* argv);
//     void QVLibrary_Run(void);
//     int  QVLibrary_GetStatus(void);
//     int  QVLibrary_GetResult(void);
//     void QVLibrary_SetNotificationFlag(bool on);   // C: _Bool
//     void QVLibrary_AddNotification(void);
//
// The meaning of the status and result integers is the plug-in's; they are passed back as they
// come. ChangeFunctionName points a function at another symbol of the same signature.
//
// Misuse and missing symbols raise std::runtime_error, which callers catch:
//     "Library path is empty"           LoadLibrary with an empty path
//     "Library does not load or found"  a call before a successful LoadLibrary
//     "Function does not found"         the plug-in lacks the symbol (looked up again next time)
//     "Function name is empty"          ChangeFunctionName with an empty name
// A library that fails to load prints "Could not attach <path>, errno=<n> desription = <dlerror>"
// to the standard error stream and LoadLibrary gives false.
//
// One object belongs to one thread at a time: symbols are resolved and stored without a lock.
// The destructor unloads the library, so nothing the plug-in handed out may outlive the object.
#pragma once

#include <dlfcn.h>

#include <map>
#include <string>

#include "common_utilities/common_utilities.h"

namespace quorvel {
namespace utilities {

class QV_EXPORT LibraryLauncher {
public:
    enum eFunction {
        eSetParameters = 0,
        eRun = 1,
        eGetStatus = 2,
        eGetResult = 3,
        eSetNotificationFlag = 4,
        eAddNotification = 5,
    };

    explicit LibraryLauncher(const std::string& path);
    ~LibraryLauncher();
    LibraryLauncher(const LibraryLauncher&) = delete;
    LibraryLauncher& operator=(const LibraryLauncher&) = delete;

    // dlopen(path, flags); true when loaded now or before.
    bool LoadLibrary(int flags = RTLD_NOW | RTLD_LOCAL);
    void ChangeFunctionName(eFunction function, const std::string& name);

    void SetParameters(int argc, const char* const* argv);
    void Run();
    int GetStatus();
    int GetResult();
    void SetNotificationFlag(bool flag);
    void AddNotification();

private:
    // The entry point of `function`, resolved now if it has not been yet; throws as described.
    void* Resolve(eFunction function);
    template <typename Signature>
    Signature* Function(eFunction function) {
        return reinterpret_cast<Signature*>(Resolve(function));
    }

    void* handle_ = nullptr;
    std::string path_;
    std::map<eFunction, std::string> names_;
    std::map<eFunction, void*> functions_;
};

}  // namespace utilities
}  // namespace quorvel
