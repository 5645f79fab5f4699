// Path strings, free space and random bytes. The string operations never touch the file system, and accept null paths.

#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/path.h"

namespace {

bool beginsWith(const char *text, const char *start) {
    return strncmp(text, start, strlen(start)) == 0;
}

bool endsWithSlash(const char *path) {
    const size_t length = strlen(path);
    return length != 0 && path[length - 1] == '/';
}

// The character after the last '/' before end, or the path's first.
const char *findComponent(const char *path, const char *end) {
    while (end != path && end[-1] != '/') {
        --end;
    }
    return end;
}

void copyRange(char *out, const char *begin, const char *end) {
    if (out != nullptr) {
        const auto length = static_cast<size_t>(end - begin);
        memcpy(out, begin, length);
        out[length] = '\0';
    }
}

}  // namespace

LPSTR vllPathFindFileName(LPCSTR pszPath) {
    if (pszPath == nullptr) {
        return nullptr;
    }
    const bool has_directory = *pszPath == '/' || beginsWith(pszPath, "./") || beginsWith(pszPath, "../");
    const char *name = pszPath;
    if (has_directory && !endsWithSlash(pszPath)) {
        name = findComponent(pszPath, pszPath + strlen(pszPath));
    }
    return const_cast<char *>(name);
}

LPSTR vllPathFindExtension(LPCSTR pszPath) {
    if (pszPath == nullptr) {
        return nullptr;
    }
    const char *end = pszPath + strlen(pszPath);
    const char *name = findComponent(pszPath, end);
    const char *dot = strrchr(name, '.');
    return const_cast<char *>(dot != nullptr && dot != name ? dot : end);
}

LPSTR vllPathAppend(LPSTR pszPath, LPCSTR pszMore) {
    if (pszPath == nullptr || pszMore == nullptr) {
        return pszPath;
    }
    if (beginsWith(pszMore, "./")) {
        pszMore += 2;
    }
    char *end = pszPath + strlen(pszPath);
    if (end != pszPath) {
        if (end[-1] != '/' && *pszMore != '/') {
            *end++ = '/';
        } else if (end[-1] == '/' && *pszMore == '/') {
            ++pszMore;
        }
    }
    stpcpy(end, pszMore);
    return pszPath;
}

BOOL vllPathRemoveFileSpec(LPSTR pszPath) {
    char *name = vllPathFindFileName(pszPath);
    if (name != pszPath) {
        *name = '\0';
        return TRUE;
    }
    if (pszPath != nullptr && endsWithSlash(pszPath)) {
        pszPath[strlen(pszPath) - 1] = '\0';
        return TRUE;
    }
    return FALSE;
}

void vll_splitpath(LPCSTR path, LPSTR drive, LPSTR dir, LPSTR fname, LPSTR ext) {
    path = path != nullptr ? path : "";
    const char *end = path + strlen(path);
    const char *extension = vllPathFindExtension(path);
    const char *name = findComponent(path, extension);
    copyRange(drive, path, path);
    copyRange(dir, path, name);
    copyRange(fname, name, extension);
    copyRange(ext, extension, end);
}

BOOL vllGetDiskFreeSpaceEx(LPCSTR lpDirectoryName, uint64_t *lpFree, uint64_t *lpTotal,
                           uint64_t *lpAvailable) {
    if (lpDirectoryName == nullptr) {
        return Fail(EINVAL);
    }
    struct statfs status;
    if (statfs(lpDirectoryName, &status) == -1) {
        return FALSE;
    }
    const auto block_size = static_cast<uint64_t>(status.f_bsize);
    if (lpFree != nullptr) {
        *lpFree = block_size * status.f_bfree;
    }
    if (lpTotal != nullptr) {
        *lpTotal = block_size * status.f_blocks;
    }
    if (lpAvailable != nullptr) {
        *lpAvailable = block_size * status.f_bavail;
    }
    return TRUE;
}

BOOL vllCryptGenRandom(DWORD dwLen, BYTE *pbBuffer) {
    const NoCancel no_cancel;
    const Fd device(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!device) {
        return FALSE;
    }
    if (dwLen == 0 || pbBuffer == nullptr) {
        return Fail(EINVAL);
    }
    // A signal or the kernel's limit may cut a read: no byte may be left as it was.
    return static_cast<size_t>(vlliReadFully(device.get(), pbBuffer, dwLen)) == dwLen;
}
