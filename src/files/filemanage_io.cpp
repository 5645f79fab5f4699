// File handles: opening, reading and writing, positions, sizes and times.

#include <fcntl.h>
#include <unistd.h>
#include <array>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/failure.h"
#include "base/log.h"
#include "core/internal_async.h"
#include "core/objmem.h"
#include "core/ref.h"
#include "files/filemanage.h"
#include "vwincompat/event.h"
#include "vwincompat/handle.h"
#include "vwincompat/wait.h"

static_assert(sizeof(FileInfoRecord) == 16 && offsetof(FileInfoRecord, creationTime) == 4 &&
              offsetof(FileInfoRecord, lastAccessTime) == 8 && offsetof(FileInfoRecord, lastWriteTime) == 12);
static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");

namespace {

// What a converted path may need beyond the length of the given one.
constexpr size_t kConversionRoom = 16;

// A result of 32 bits that is too large, or -1 itself.
constexpr DWORD kNoResult = 0xFFFFFFFF;

// Indexed by the creation disposition.
constexpr std::array<int, 6> kDispositionFlags = {0, O_CREAT | O_EXCL, O_CREAT | O_TRUNC,
                                                  0, O_CREAT,          O_TRUNC};

int toFd(HANDLE handle) {
    return static_cast<int>(handle);
}

bool isWindowsPath(const char *path) {
    return (path[0] != '\0' && path[1] == ':') || strchr(path, '\\') != nullptr;
}

HANDLE openFile(const char *path, DWORD flags, DWORD mode, DWORD disposition) {
    if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING) {
        return Fail(EINVAL, INVALID_HANDLE_VALUE);
    }
    const int all_flags = static_cast<int>(flags) | kDispositionFlags[disposition];
    return static_cast<HANDLE>(vlliBlockInOpen(path, all_flags, mode));
}

BOOL finish(ssize_t result, LPDWORD count) {
    if (count != nullptr) {
        *count = static_cast<DWORD>(result);
    }
    return result != -1;
}

BOOL startTransfer(HANDLE file, void *buffer, DWORD size, OverlappedRecord *record, bool write) {
    record->fd = toFd(file);
    record->buffer = buffer;
    record->requested = size;
    record->result = 0;
    record->transferred = 0;
    if (static_cast<int32_t>(record->event) <= 0) {
        const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
        if (event == 0) {
            return FALSE;
        }
        record->event = event;
    }
    return vlliRegisterTransfer(record, write);
}

// Sleeps until the event is likely to be signalled. The wait that follows then finds it so at once, and need
// not build a set to wait on.
void sleepUntilSignalled(HANDLE handle) {
    const Ref<OBJ_EVENT> event(handle, Refusal::kSilent);  // the wait tells what is wrong with it
    if (event) {
        std::array<pollfd, 2> fds = {{{event->fd, POLLIN, 0}, {event->efd, POLLIN, 0}}};
        vlliBlockInPoll(fds.data(), fds.size(), -1);
    }
}

}  // namespace

HANDLE vllCreateFile(LPCSTR lpFileName, DWORD dwFlags, DWORD dwMode, DWORD dwCreationDisposition) {
    if (lpFileName == nullptr) {
        return Fail(EINVAL, INVALID_HANDLE_VALUE);
    }
    if (!isWindowsPath(lpFileName)) {
        return openFile(lpFileName, dwFlags, dwMode, dwCreationDisposition);
    }
    const HeapBlock<char> converted(static_cast<char *>(malloc(strlen(lpFileName) + kConversionRoom)));
    if (converted == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    if (vlliConvertToLinuxPath(converted.get(), lpFileName) == -1) {
        return Fail(EACCES, INVALID_HANDLE_VALUE);
    }
    vlliLogNotice("VLL: CreateFile: '%s' path converted to '%s'\n", lpFileName, converted.get());
    return openFile(converted.get(), dwFlags, dwMode, dwCreationDisposition);
}

// read() and write() need no room of their own to block in: a cancelled thread can be unwound from them on every
// machine, and the C frame of internal_blocking.c would cost a twentieth of a short transfer.
BOOL vllReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                 LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped != nullptr) {
        return startTransfer(hFile, lpBuffer, nNumberOfBytesToRead, lpOverlapped, false);
    }
    return finish(read(toFd(hFile), lpBuffer, nNumberOfBytesToRead), lpNumberOfBytesRead);
}

BOOL vllWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
                  LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped != nullptr) {
        return startTransfer(hFile, const_cast<void *>(lpBuffer), nNumberOfBytesToWrite, lpOverlapped, true);
    }
    return finish(write(toFd(hFile), lpBuffer, nNumberOfBytesToWrite), lpNumberOfBytesWritten);
}

BOOL vllGetOverlappedResult(LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred, BOOL bWait) {
    int32_t count = -1;
    uint32_t event_mask = kNoResult;
    finish(count, lpNumberOfBytesTransferred);
    if (lpOverlapped == nullptr) {
        return Fail(EINVAL);
    }
    if (bWait != 0) {
        sleepUntilSignalled(lpOverlapped->event);
    }
    const DWORD waited = vllWaitForSingleObject(lpOverlapped->event, bWait != 0 ? INFINITE : 0);
    if (waited == WAIT_TIMEOUT) {
        return Fail(EINPROGRESS);
    }
    if (waited == WAIT_FAILED) {
        return FALSE;
    }
    count = lpOverlapped->result;
    finish(count, lpNumberOfBytesTransferred);
    if (bWait != 0 && lpOverlapped->eventMask != nullptr) {
        event_mask = *lpOverlapped->eventMask;
    }
    if (count == -1 && event_mask == kNoResult) {
        errno = EIO;  // the service's own reason is gone
        return FALSE;
    }
    return TRUE;
}

BOOL vllCancelIo(HANDLE hFile) {
    return vlliCancelTransfer(toFd(hFile));
}

DWORD vllSetFilePointer(HANDLE hFile, LONG lDistanceToMove, DWORD dwMoveMethod) {
    const int fd = toFd(hFile);
    const off_t before = lseek(fd, 0, SEEK_CUR);
    const off_t position = lseek(fd, lDistanceToMove, static_cast<int>(dwMoveMethod));
    if (position >= kNoResult) {
        lseek(fd, before, SEEK_SET);
        return Fail(EOVERFLOW, kNoResult);
    }
    return static_cast<DWORD>(position);
}

BOOL vllFlushFileBuffers(HANDLE hFile) {
    return vlliBlockInFsync(toFd(hFile)) == 0;
}

DWORD vllGetFileSize(HANDLE hFile) {
    struct stat status;
    if (fstat(toFd(hFile), &status) == -1) {
        return kNoResult;
    }
    if (!S_ISREG(status.st_mode)) {
        return Fail(EISDIR, kNoResult);
    }
    if (status.st_size >= kNoResult) {
        return Fail(EOVERFLOW, kNoResult);
    }
    return static_cast<DWORD>(status.st_size);
}

FileInfoRecord *vllGetFileInformationByHandle(HANDLE hFile, FileInfoRecord *lpFileInformation) {
    if (lpFileInformation == nullptr) {
        return Fail(EINVAL);
    }
    struct stat status;
    if (fstat(toFd(hFile), &status) == -1) {
        return nullptr;
    }
    const FILETIME created = vlliToFileTime(status.st_ctime);
    const FILETIME accessed = vlliToFileTime(status.st_atime);
    const FILETIME written = vlliToFileTime(status.st_mtime);
    if (created != status.st_ctime || accessed != status.st_atime || written != status.st_mtime) {
        return Fail(EOVERFLOW);
    }
    lpFileInformation->creationTime = created;
    lpFileInformation->lastAccessTime = accessed;
    lpFileInformation->lastWriteTime = written;
    return lpFileInformation;
}
