// Modules over the dynamic loader, and the command line. Cancellation is disabled in the loader, which runs the modules'
// own code while it holds its lock.

#include <dlfcn.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/failure.h"
#include "base/guards.h"
#include "system/dll.h"

namespace {

char szCommandLine[4096];

HMODULE openModule(const char *name, int mode) {
    const NoCancel no_cancel;
    return dlopen(name, mode);
}

}  // namespace

HMODULE vllLoadLibrary(LPCSTR lpLibFileName) {
    return openModule(lpLibFileName, RTLD_LAZY | RTLD_GLOBAL);
}

HMODULE vllLoadLibraryEx(LPCSTR lpLibFileName) {
    return vllLoadLibrary(lpLibFileName);
}

BOOL vllFreeLibrary(HMODULE hLibModule) {
    if (hLibModule == nullptr) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    return dlclose(hLibModule) == 0;
}

LPVOID vllGetProcAddress(HMODULE hModule, LPCSTR lpProcName) {
    if (lpProcName == nullptr) {
        return Fail(EINVAL);
    }
    return dlsym(hModule, lpProcName);
}

HMODULE vllGetModuleHandle(LPCSTR lpModuleName) {
    HMODULE module = openModule(lpModuleName, RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD);
    if (module != nullptr) {
        vllFreeLibrary(module);
    }
    return module;
}

LPSTR vllGetCommandLine() {
    const NoCancel no_cancel;
    const FilePtr file(fopen("/proc/self/cmdline", "re"));
    if (file == nullptr) {
        return nullptr;
    }
    memset(szCommandLine, 0, sizeof szCommandLine);
    return fgets(szCommandLine, sizeof szCommandLine, file.get());
}
