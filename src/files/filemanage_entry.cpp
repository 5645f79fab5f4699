// Whether two names are one file. Copies and moves compare them before they unlink anything: a file that is copied or
// moved to itself must not be lost.

#include <sys/stat.h>
#include <climits>
#include <cstring>

#include "base/failure.h"
#include "base/text.h"
#include "files/filemanage.h"

namespace {

bool isSameInode(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

const char *nameIn(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

bool statDirectoryOf(const char *path, struct stat *status) {
    char directory[PATH_MAX] = ".";
    const auto length = static_cast<size_t>(nameIn(path) - path);
    if (length >= sizeof directory) {
        return false;
    }
    if (length != 0) {
        memcpy(directory, path, length);
        directory[length] = '\0';
    }
    return stat(directory, status) == 0;
}

}  // namespace

bool vlliIsSameEntry(const char *one, const char *other) {
    const KeepErrno keep_errno;
    struct stat first;
    struct stat second;
    if (lstat(one, &first) == -1 || lstat(other, &second) == -1 || !isSameInode(first, second)) {
        return false;
    }
    if (first.st_nlink == 1) {
        return true;
    }
    // A file of several links: one entry is one name in one directory. Some file systems ignore the case of names.
    return vlliEqualsIgnoringCase(nameIn(one), nameIn(other)) && statDirectoryOf(one, &first) &&
           statDirectoryOf(other, &second) && isSameInode(first, second);
}

bool vlliIsAlreadyThere(const char *from, const char *to) {
    const KeepErrno keep_errno;
    struct stat source;
    struct stat target;
    if (lstat(to, &target) == -1 || S_ISDIR(target.st_mode)) {
        return false;
    }
    return (lstat(from, &source) == 0 && isSameInode(source, target)) ||
           (stat(from, &source) == 0 && isSameInode(source, target));
}
