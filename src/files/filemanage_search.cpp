// Attributes, directory searches, and the current directory. A search is one glob(3) whose result is reported entry by
// entry, so that an entry may have vanished when its turn comes.

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include "base/allocate.h"
#include "base/failure.h"
#include "base/guards.h"
#include "files/filemanage.h"
#include "vwincompat/fileops.h"

static_assert(sizeof(FindDataRecord) == 20 + 4096 && offsetof(FindDataRecord, name) == 20);

struct SearchRecord {
    glob_t found = {};
    uint32_t index = 0;  // of the entry that was reported last
    ~SearchRecord() { globfree(&found); }
};

namespace {

constexpr size_t kPatternSize = 4096;
constexpr mode_t kDirectoryMode = 0770;
constexpr DWORD kTooLarge = 0xFFFFFFFF;

DWORD attributesOf(const char *path, const struct stat &status) {
    DWORD attributes = ATTR_OTHER;
    if (S_ISREG(status.st_mode)) {
        attributes = ATTR_REGULAR;
    } else if (S_ISDIR(status.st_mode)) {
        attributes = ATTR_DIRECTORY;
    }
    const KeepErrno keep_errno;
    if (access(path, R_OK) == 0 && access(path, W_OK) == -1 && access(path, X_OK) == -1) {
        attributes |= ATTR_READONLY;
    }
    return attributes;
}

// glob(3) marks directories by a '/', which is no part of their name.
void removeTrailingSlashes(char *path) {
    size_t length = strlen(path);
    while (length > 1 && path[length - 1] == '/') {
        path[--length] = '\0';
    }
}

BOOL describe(char *path, FindDataRecord *data) {
    removeTrailingSlashes(path);
    struct stat status;
    if (stat(path, &status) == -1) {
        return FALSE;
    }
    const char *slash = strrchr(path, '/');
    data->attributes = attributesOf(path, status);
    data->creationTime = vlliToFileTime(status.st_ctime);
    data->lastAccessTime = vlliToFileTime(status.st_atime);
    data->lastWriteTime = vlliToFileTime(status.st_mtime);
    data->size = status.st_size < kTooLarge ? static_cast<DWORD>(status.st_size) : kTooLarge;
    const char *name = slash != nullptr ? slash + 1 : path;
    memset(data->name, 0, sizeof data->name);
    memcpy(data->name, name, strnlen(name, sizeof data->name));
    return TRUE;
}

int globError(int code) {
    switch (code) {
        case GLOB_NOSPACE:
            return ENOMEM;
        case GLOB_ABORTED:
            return EACCES;
        default:
            return ENOENT;
    }
}

BOOL expand(const char *pattern, glob_t *found) {
    char buffer[kPatternSize];
    const size_t length = strnlen(pattern, kPatternSize);
    const bool whole_directory = length != 0 && length < kPatternSize && pattern[length - 1] == '/';
    if (length + (whole_directory ? 1 : 0) >= kPatternSize) {
        return Fail(ENAMETOOLONG);
    }
    stpcpy(stpcpy(buffer, pattern), whole_directory ? "*" : "");
    const int code =
        glob(buffer, GLOB_ERR | GLOB_MARK | GLOB_NOSORT | GLOB_PERIOD | GLOB_TILDE, nullptr, found);
    return code == 0 ? TRUE : Fail(globError(code));
}

bool isSearch(const SearchRecord *search) {
    return search != nullptr && search != INVALID_FIND_HANDLE;
}

HeapBlock<char> currentDirectory() {
    return HeapBlock<char>(getcwd(nullptr, 0));
}

}  // namespace

DWORD vllGetFileAttributes(LPCSTR lpFileName) {
    if (lpFileName == nullptr) {
        return Fail(EINVAL, INVALID_FILE_ATTRIBUTES);
    }
    struct stat status;
    return stat(lpFileName, &status) == 0 ? attributesOf(lpFileName, status) : INVALID_FILE_ATTRIBUTES;
}

SearchRecord *vllFindFirstFile(LPCSTR lpFileName, FindDataRecord *lpFindFileData) {
    if (lpFileName == nullptr || lpFindFileData == nullptr) {
        return Fail(EINVAL, INVALID_FIND_HANDLE);
    }
    const NoCancel no_cancel;  // glob(3) reads directories, a cancellation point, and would leak its lists
    std::unique_ptr<SearchRecord> search(new (std::nothrow) SearchRecord);
    if (search == nullptr) {
        return Fail(ENOMEM, INVALID_FIND_HANDLE);
    }
    if (!expand(lpFileName, &search->found) || !describe(search->found.gl_pathv[0], lpFindFileData)) {
        const KeepErrno keep_errno;
        search.reset();
        return INVALID_FIND_HANDLE;
    }
    return search.release();
}

BOOL vllFindNextFile(SearchRecord *hFindFile, FindDataRecord *lpFindFileData) {
    if (!isSearch(hFindFile) || lpFindFileData == nullptr) {
        return Fail(EINVAL);
    }
    if (hFindFile->index + 1 >= hFindFile->found.gl_pathc) {
        return Fail(ENOENT);
    }
    ++hFindFile->index;
    return describe(hFindFile->found.gl_pathv[hFindFile->index], lpFindFileData);
}

BOOL vllFindClose(SearchRecord *hFindFile) {
    if (!isSearch(hFindFile)) {
        return Fail(EINVAL);
    }
    delete hFindFile;
    return TRUE;
}

BOOL vllCreateDirectory(LPCSTR lpPathName) {
    return lpPathName != nullptr ? mkdir(lpPathName, kDirectoryMode) == 0 : Fail(EINVAL);
}

BOOL vllRemoveDirectory(LPCSTR lpPathName) {
    return lpPathName != nullptr ? rmdir(lpPathName) == 0 : Fail(EINVAL);
}

BOOL vllSetCurrentDirectory(LPCSTR lpPathName) {
    return lpPathName != nullptr ? chdir(lpPathName) == 0 : Fail(EINVAL);
}

DWORD vllGetCurrentDirectory(DWORD nBufferLength, LPSTR lpBuffer) {
    const HeapBlock<char> directory = currentDirectory();
    if (directory == nullptr) {
        return 0;
    }
    const auto need = static_cast<DWORD>(strlen(directory.get()) + 1);
    if (need > nBufferLength || lpBuffer == nullptr) {
        return need;
    }
    memcpy(lpBuffer, directory.get(), need);
    return need - 1;
}

DWORD vllGetFullPathName(LPCSTR lpFileName, DWORD nBufferLength, LPSTR lpBuffer, LPSTR *lpFilePart) {
    if (lpFileName == nullptr) {
        return Fail(EINVAL);
    }
    const HeapBlock<char> directory = currentDirectory();
    if (directory == nullptr) {
        return 0;
    }
    const size_t need = strlen(directory.get()) + strlen(lpFileName) + 1;
    if (need <= nBufferLength && lpBuffer != nullptr) {
        memset(lpBuffer, 0, nBufferLength);
        char *file_part = stpcpy(lpBuffer, directory.get());
        stpcpy(file_part, lpFileName);
        if (lpFilePart != nullptr) {
            *lpFilePart = file_part;
        }
    }
    return static_cast<DWORD>(need);
}
