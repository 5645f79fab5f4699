// Links, moves and deletions of files.

#include <fcntl.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <memory>

#include "filemanage.h"

namespace {

constexpr const char *kDeferredMoves = "/etc/moved.conf";
constexpr mode_t kDeferredMovesMode = 0644;

// True when both are links to one object; symbolic links are objects themselves.
bool areLinked(const char *one, const char *other) {
    const KeepErrno keep_errno;
    struct stat first;
    struct stat second;
    return lstat(one, &first) == 0 && lstat(other, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
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
    const ssize_t written = write(file.get(), line, length);
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
        errno = ENOMEM;
        return FALSE;
    }
    const std::unique_ptr<char, FreeDeleter> line(text);
    return appendLine(line.get(), static_cast<size_t>(length));
}

BOOL moveByCopy(const char *from, const char *to, bool replace) {
    if (vlliIsSameEntry(from, to)) {
        // One entry under two names, on a directory mounted twice: it must not be deleted.
        return replace || vlliFailInvalid();
    }
    return vllCopyFile(from, to, replace ? FALSE : TRUE) && vllDeleteFile(from);
}

}  // namespace

BOOL vllLinkOrCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists) {
    if (lpExistingFileName == nullptr || lpNewFileName == nullptr) {
        return vlliFailInvalid();
    }
    int result = link(lpExistingFileName, lpNewFileName);
    if (result == -1 && errno == EEXIST && bFailIfExists == 0) {
        if (areLinked(lpExistingFileName, lpNewFileName)) {
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
    const BOOL moved = replace ? rename(lpExistingFileName, lpNewFileName) == 0
                               : moveByLink(lpExistingFileName, lpNewFileName);
    if (moved) {
        return TRUE;
    }
    return copy_allowed ? moveByCopy(lpExistingFileName, lpNewFileName, replace) : vlliFailInvalid();
}

BOOL vllDeleteFile(LPCSTR lpFileName) {
    return lpFileName != nullptr ? remove(lpFileName) == 0 : vlliFailInvalid();
}
