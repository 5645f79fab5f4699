// Modules as the process's memory map, /proc/self/maps, shows them.

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "base/failure.h"
#include "base/guards.h"
#include "system/dll.h"

namespace {

constexpr char kDeleted[] = " (deleted)";
constexpr size_t kDeletedLength = sizeof kDeleted - 1;

char szStartingAddress[20];

static_assert(sizeof szStartingAddress > 2 * sizeof(uintptr_t));

// The code segments of the process, one after the other. Cancellation is disabled while the map is read.
class MemoryMap {
  public:
    MemoryMap() : file_(fopen("/proc/self/maps", "re")) {}

    explicit operator bool() const { return file_ != nullptr; }

    // Finds the next code segment, and copies its whole line unless the pointer is null. False at the end.
    bool next(CodeSegment *segment, char *whole_line = nullptr) {
        while (readLine()) {
            if (whole_line != nullptr) {
                memcpy(whole_line, line_, sizeof line_);
            }
            if (vlliParseMapLine(line_, segment)) {
                return true;
            }
        }
        return false;
    }

    static constexpr size_t kLineSize = 4096;

  private:
    // Reads the next line that fits the buffer. Of a longer line all parts are skipped, since its last part could pass
    // for a line.
    bool readLine() {
        bool after_newline = true;
        while (fgets(line_, sizeof line_, file_.get()) != nullptr) {
            char *newline = strchr(line_, '\n');
            const bool is_start = after_newline;
            after_newline = newline != nullptr;
            if (is_start && newline != nullptr) {
                *newline = '\0';
                return true;
            }
        }
        return false;
    }

    const NoCancel no_cancel_;
    FilePtr file_;
    char line_[kLineSize];
};

// Copies a path to a buffer of VLL_MODULE_NAME_SIZE bytes: TRUE, or FALSE with ENAMETOOLONG.
BOOL copyPath(char *buffer, const char *path) {
    const size_t size = strlen(path) + 1;
    if (size > VLL_MODULE_NAME_SIZE) {
        return Fail(ENAMETOOLONG);
    }
    memcpy(buffer, path, size);
    return TRUE;
}

uintptr_t parseAddress(const char *digits) {
    return static_cast<uintptr_t>(strtoull(digits, nullptr, 16));
}

}  // namespace

bool vlliParseMapLine(char *line, CodeSegment *segment) {
    char *path = strchr(line, '/');
    char *hyphen = strchr(line, '-');
    if (strstr(line, " r-xp ") == nullptr || path == nullptr || hyphen == nullptr || hyphen > path) {
        return false;
    }
    const char *blank = strchr(hyphen, ' ');
    if (blank == nullptr || blank - hyphen - 1 != hyphen - line) {
        return false;
    }
    const size_t length = strlen(path);
    if (length > kDeletedLength && strcmp(path + length - kDeletedLength, kDeleted) == 0) {
        path[length - kDeletedLength] = '\0';
    }
    segment->start = parseAddress(line);
    segment->end = parseAddress(hyphen + 1);
    segment->path = path;
    return true;
}

BOOL vlliGetProgramName(char *buffer) {
    char target[VLL_MODULE_NAME_SIZE];
    const ssize_t length = readlink("/proc/self/exe", target, sizeof target);
    if (length == -1) {
        return FALSE;
    }
    if (static_cast<size_t>(length) == sizeof target) {
        return Fail(ENAMETOOLONG);
    }
    target[length] = '\0';
    struct stat status;
    return stat(target, &status) == 0 && copyPath(buffer, target);
}

BOOL vlliGetModuleFileNameByAddress(LPCVOID address, char *buffer) {
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    if (wanted == 0) {
        return Fail(EINVAL);
    }
    MemoryMap map;
    if (!map) {
        return FALSE;
    }
    CodeSegment segment;
    while (map.next(&segment)) {
        if (segment.start <= wanted && wanted < segment.end) {
            return copyPath(buffer, segment.path);
        }
    }
    return Fail(ENOENT);
}

BOOL vllGetModuleFileName(LPCVOID lpAddress, LPSTR lpFilename) {
    if (lpFilename == nullptr) {
        return Fail(EINVAL);
    }
    return lpAddress == nullptr ? vlliGetProgramName(lpFilename)
                                : vlliGetModuleFileNameByAddress(lpAddress, lpFilename);
}

BOOL vllEnumerateLoadedModules(LPSTR lpBuffer) {
    const size_t before =
        lpBuffer != nullptr ? strnlen(lpBuffer, VLL_MODULE_LIST_SIZE) : VLL_MODULE_LIST_SIZE;
    if (before == VLL_MODULE_LIST_SIZE) {
        return Fail(EINVAL);
    }
    MemoryMap map;
    if (!map) {
        return FALSE;
    }
    size_t used = before;
    CodeSegment segment;
    while (map.next(&segment)) {
        if (strstr(segment.path, ".so") == nullptr) {
            continue;
        }
        char entry[MemoryMap::kLineSize + 64];
        const int length =
            snprintf(entry, sizeof entry, "%-20s start = %08" PRIXPTR " end = %08" PRIXPTR "\r\n",
                     segment.path, segment.start, segment.end);
        const auto size = static_cast<size_t>(length);
        if (size >= VLL_MODULE_LIST_SIZE - used) {
            lpBuffer[before] = '\0';
            return Fail(ENOBUFS);
        }
        memcpy(lpBuffer + used, entry, size + 1);
        used += size;
    }
    return TRUE;
}

LPSTR vllGetModuleStartingAddress(LPCSTR lpModuleName) {
    if (lpModuleName == nullptr) {
        return Fail(EINVAL);
    }
    MemoryMap map;
    if (!map) {
        return nullptr;
    }
    CodeSegment segment;
    char line[MemoryMap::kLineSize];
    while (map.next(&segment, line)) {
        if (strstr(line, lpModuleName) != nullptr) {
            snprintf(szStartingAddress, sizeof szStartingAddress, "%08" PRIXPTR, segment.start);
            break;
        }
    }
    return szStartingAddress;
}
