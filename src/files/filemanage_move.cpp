// Links, moves and deletions of files.

#include <fcntl.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "files/filemanage.h"

namespace {

constexpr const char *kDeferredMoves = "/etc/moved.conf";
constexpr mode_t kDeferredMovesMode = 0644;

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

// True when the new name already is the old one's file: another link to it, what it leads to, or itself.
bool isAlreadyThere(const char *from, const char *to) {
    const KeepErrno keep_errno;
    struct stat source;
    struct stat target;
    if (lstat(to, &target) == -1 || S_ISDIR(target.st_mode)) {
        return false;
    }
    return (lstat(from, &source) == 0 && isSameInode(source, target)) ||
           (stat(from, &source) == 0 && isSameInode(source, target));
}

BOOL moveByRename(const char *from, const char *to) {
    if (!isAlreadyThere(from, to)) {
        return rename(from, to) == 0;
    }
    if (vlliIsSameEntry(from, to)) {
        // At most another case of its letters; nothing to do on a directory that is mounted twice.
        return rename(from, to) == 0 || errno == EXDEV;
    }
    // rename(2) would leave both names of one file, and replace what a symbolic link leads to by the link.
    return unlink(from) == 0;
}

BOOL moveByLink(const char *from, const char *to) {
    if (link(from, to) == -1) {
        return FALSE;
    }
    if (unlink(from) == -1) {
        const KeepErrno keep_errno;
        unlink(to);
        return FALSE;
    }
    return TRUE;
}

// Appends a line with one write. A file system that takes only a part of it gets that part back, unless
// another line stands behind it already: half a line would join with the next one.
BOOL appendLine(const char *line, size_t length) {
    const NoCancel no_cancel;
    const Fd file(open(kDeferredMoves, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kDeferredMovesMode));
    if (!file) {
        return FALSE;
    }
    ssize_t written;
    do {
        written = write(file.get(), line, length);
    } while (written == -1 && errno == EINTR);
    if (written == static_cast<ssize_t>(length)) {
        return TRUE;
    }
    if (written > 0) {
        struct stat status;
        const off_t end = lseek(file.get(), 0, SEEK_CUR);
        if (fstat(file.get(), &status) == 0 && status.st_size == end &&
            ftruncate(file.get(), end - written) == -1) {
            vlliLogError("VLLI: MoveFileEx: half a line stays in %s\n", kDeferredMoves);
        }
        errno = ENOSPC;
    }
    return FALSE;
}

BOOL deferMove(const char *from, const char *to, bool replace) {
    if (replace && to == nullptr) {
        return vlliFailInvalid();
    }
    if (strchr(from, '\n') != nullptr || (replace && strchr(to, '\n') != nullptr)) {
        return vlliFailInvalid();
    }
    char *text = nullptr;
    const int length =
        replace ? asprintf(&text, "%s %s replace_existing\n", from, to) : asprintf(&text, "%s  NULL\n", from);
    if (length == -1) {
        return Fail(ENOMEM);
    }
    const HeapBlock<char> line(text);
    return appendLine(line.get(), static_cast<size_t>(length));
}

BOOL moveByCopy(const char *from, const char *to, bool replace) {
    if (replace && isAlreadyThere(from, to)) {
        return FALSE;  // there was only the old name to be removed
    }
    return vllCopyFile(from, to, replace ? FALSE : TRUE) && vllDeleteFile(from);
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
    // Of several links, those of one name in one directory; in some directories case does not count.
    return strcasecmp(nameIn(one), nameIn(other)) == 0 && statDirectoryOf(one, &first) &&
           statDirectoryOf(other, &second) && isSameInode(first, second);
}

BOOL vllLinkOrCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists) {
    if (lpExistingFileName == nullptr || lpNewFileName == nullptr) {
        return vlliFailInvalid();
    }
    int result = link(lpExistingFileName, lpNewFileName);
    if (result == -1 && errno == EEXIST && bFailIfExists == 0) {
        if (isAlreadyThere(lpExistingFileName, lpNewFileName)) {
            return TRUE;
        }
        if (unlink(lpNewFileName) == -1) {
            return FALSE;
        }
        result = link(lpExistingFileName, lpNewFileName);
    }
    if (result == -1 && errno == EXDEV) {
        return vllCopyFile(lpExistingFileName, lpNewFileName, bFailIfExists);
    }
    return result == 0;
}

BOOL vllMoveFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName) {
    if (lpExistingFileName == nullptr || lpNewFileName == nullptr) {
        return vlliFailInvalid();
    }
    return moveByLink(lpExistingFileName, lpNewFileName);
}

BOOL vllMoveFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags) {
    const bool copy_allowed = (dwFlags & MOVE_COPY_ALLOWED) != 0;
    const bool deferred = (dwFlags & MOVE_DELAY_UNTIL_REBOOT) != 0;
    const bool replace = (dwFlags & MOVE_REPLACE_EXISTING) != 0;
    if (lpExistingFileName == nullptr || (copy_allowed && deferred)) {
        return vlliFailInvalid();
    }
    if (deferred) {
        return deferMove(lpExistingFileName, lpNewFileName, replace);
    }
    if (lpNewFileName == nullptr) {
        return vlliFailInvalid();
    }
    const BOOL moved = replace ? moveByRename(lpExistingFileName, lpNewFileName)
                               : moveByLink(lpExistingFileName, lpNewFileName);
    if (moved) {
        return TRUE;
    }
    return copy_allowed ? moveByCopy(lpExistingFileName, lpNewFileName, replace) : vlliFailInvalid();
}

BOOL vllDeleteFile(LPCSTR lpFileName) {
    return lpFileName != nullptr ? remove(lpFileName) == 0 : vlliFailInvalid();
}
