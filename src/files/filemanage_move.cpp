// Links, moves and deletions of files, and the list of moves that wait for the next start of the system.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>

#include "base/allocate.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "files/filemanage.h"
#include "vwincompat/fileops.h"

namespace {

constexpr const char *kDeferredMoves = "/etc/moved.conf";
constexpr mode_t kDeferredMovesMode = 0644;

BOOL moveByRename(const char *from, const char *to) {
    if (!vlliIsAlreadyThere(from, to)) {
        return rename(from, to) == 0;
    }
    if (vlliIsSameEntry(from, to)) {
        // Renaming it changes at most the case of its letters. In a directory that is mounted twice there is nothing to
        // rename: EXDEV.
        return rename(from, to) == 0 || errno == EXDEV;
    }
    // rename(2) would leave both names of one file alone, and would replace the file that a symbolic link leads to by
    // the link.
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

// Removes the part of a line that was written at the file's end, unless another process has written behind it.
void removePartOfLine(int fd, ssize_t written) {
    struct stat status;
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (fstat(fd, &status) == 0 && status.st_size == end && ftruncate(fd, end - written) == -1) {
        vlliLogError("VLLI: MoveFileEx: half a line stays in %s\n", kDeferredMoves);
    }
}

// Appends a line with one write, so that lines of several processes do not mix. A file system that takes only a part of
// the line gets none of it: half a line would join with the next one.
BOOL appendLine(const char *line, size_t length) {
    const NoCancel no_cancel;
    const Fd file(open(kDeferredMoves, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kDeferredMovesMode));
    if (!file) {
        return FALSE;
    }
    const ssize_t written = vlliRetryOnEintr([&] { return write(file.get(), line, length); });
    if (written > 0 && written < static_cast<ssize_t>(length)) {
        removePartOfLine(file.get(), written);
        return Fail(ENOSPC);
    }
    return written == static_cast<ssize_t>(length);
}

bool isOneLine(const char *name) {
    return name != nullptr && strchr(name, '\n') == nullptr;
}

BOOL deferMove(const char *from, const char *to, bool replace) {
    if (!isOneLine(from) || (replace && !isOneLine(to))) {
        return Fail(EINVAL);
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
    if (replace && vlliIsAlreadyThere(from, to)) {
        return FALSE;  // the move was only to remove the old name, and that failed
    }
    return vllCopyFile(from, to, replace ? FALSE : TRUE) && vllDeleteFile(from);
}

}  // namespace

BOOL vllLinkOrCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists) {
    if (lpExistingFileName == nullptr || lpNewFileName == nullptr) {
        return Fail(EINVAL);
    }
    int result = link(lpExistingFileName, lpNewFileName);
    if (result == -1 && errno == EEXIST && bFailIfExists == 0) {
        if (vlliIsAlreadyThere(lpExistingFileName, lpNewFileName)) {
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
        return Fail(EINVAL);
    }
    return moveByLink(lpExistingFileName, lpNewFileName);
}

BOOL vllMoveFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, DWORD dwFlags) {
    const bool copy_allowed = (dwFlags & MOVE_COPY_ALLOWED) != 0;
    const bool deferred = (dwFlags & MOVE_DELAY_UNTIL_REBOOT) != 0;
    const bool replace = (dwFlags & MOVE_REPLACE_EXISTING) != 0;
    if (lpExistingFileName == nullptr || (copy_allowed && deferred)) {
        return Fail(EINVAL);
    }
    if (deferred) {
        return deferMove(lpExistingFileName, lpNewFileName, replace);
    }
    if (lpNewFileName == nullptr) {
        return Fail(EINVAL);
    }
    const BOOL moved = replace ? moveByRename(lpExistingFileName, lpNewFileName)
                               : moveByLink(lpExistingFileName, lpNewFileName);
    if (moved) {
        return TRUE;
    }
    return copy_allowed ? moveByCopy(lpExistingFileName, lpNewFileName, replace) : Fail(EINVAL);
}

BOOL vllDeleteFile(LPCSTR lpFileName) {
    return lpFileName != nullptr ? remove(lpFileName) == 0 : Fail(EINVAL);
}
