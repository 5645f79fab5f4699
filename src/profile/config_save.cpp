// Saving the system's configuration store to a file. A file that cannot be opened is also reported on standard output.

#include <cstdio>
#include <memory>

#include "base/failure.h"
#include "base/guards.h"
#include "profile/config.h"
#include "vwincompat/profile.h"

namespace {

struct FileCloser {
    void operator()(FILE *file) const {
        const KeepErrno keep_errno;
        fclose(file);
    }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Opens a file: null with errno and a line on standard output when that fails.
File openOrReport(const char *name, const char *mode, const char *what) {
    File file(fopen(name, mode));
    if (file == nullptr) {
        const KeepErrno keep_errno;
        printf("Cannot open %s file (%s).\n", what, name);
    }
    return file;
}

}  // namespace

int __CopyFile(const char *source, const char *target, const char *mode) {
    const File from = openOrReport(source, "re", "source");
    if (from == nullptr) {
        return 1;
    }
    File to = openOrReport(target, mode, "destination");
    if (to == nullptr) {
        return 1;
    }
    char buffer[kConfigLineSize];
    size_t count;
    while ((count = fread(buffer, 1, sizeof buffer, from.get())) != 0) {
        if (fwrite(buffer, 1, count, to.get()) != count) {
            return 1;
        }
    }
    if (ferror(from.get())) {
        return 1;
    }
    return fclose(to.release()) == 0 ? 0 : 1;
}

int __vllRegSaveAllKeys(const char *file) {
    return __CopyFile("/proc/Ulmex/VConfig/data", file, "we");
}

LONG vllRegSaveKey(HANDLE key, LPCSTR file, LPVOID security) {
    (void)key;
    (void)security;
    const NoCancel no_cancel;
    if (file == nullptr) {
        return Fail(EINVAL, EINVAL);
    }
    return __vllRegSaveAllKeys(file) == 0 ? 0 : errno;
}
