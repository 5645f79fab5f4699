// File handles: opening, reading and writing, positions, sizes and times. A file handle is the descriptor itself.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>
#include <cstddef>
#include <cstring>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/failure.h"
#include "base/log.h"
#include "core/internal_async.h"
#include "core/ref.h"
#include "files/filemanage.h"
#include "vwincompat/event.h"
#include "vwincompat/file.h"
#include "vwincompat/wait.h"

static_assert(sizeof(FileInfoRecord) == 16 && offsetof(FileInfoRecord, creationTime) == 4 &&
              offsetof(FileInfoRecord, lastAccessTime) == 8 && offsetof(FileInfoRecord, lastWriteTime) == 12);
static_assert(sizeof(off_t) == 8, "files of more than 2 GiB");

namespace {

// A converted path takes at most so many bytes more than the given one, its terminator included.
constexpr size_t kConversionMargin = 16;

// The result -1 in 32 bits: a failure.
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

// Stores the result of a read or write: TRUE, or FALSE for -1.
BOOL storeCount(ssize_t result, LPDWORD count) {
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

// Sleeps until the event is likely to be signalled, so that the wait that follows returns at once and builds no set of
// descriptors. A handle that is refused here is reported by that wait.
void sleepUntilSignalled(HANDLE handle) {
    const Ref<OBJ_EVENT> event(handle, Refusal::kSilent);
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
    const auto converted = vlliAllocate<char>(strlen(lpFileName) + kConversionMargin);
    if (converted == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    if (vlliConvertToLinuxPath(converted.get(), lpFileName) == -1) {
        return Fail(EACCES, INVALID_HANDLE_VALUE);
    }
    vlliLogNotice("VLL: CreateFile: '%s' path converted to '%s'\n", lpFileName, converted.get());
    return openFile(converted.get(), dwFlags, dwMode, dwCreationDisposition);
}

// read(2) and write(2) need no wrapper of base/blocking.h: a thread that is cancelled in them can be unwound on every
// machine, and a wrapper would make a short transfer a twentieth slower.
BOOL vllReadFile(HANDLE hFile, LPVOID lpBuffer, DWORD nNumberOfBytesToRead, LPDWORD lpNumberOfBytesRead,
                 LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped != nullptr) {
        return startTransfer(hFile, lpBuffer, nNumberOfBytesToRead, lpOverlapped, false);
    }
    return storeCount(read(toFd(hFile), lpBuffer, nNumberOfBytesToRead), lpNumberOfBytesRead);
}

BOOL vllWriteFile(HANDLE hFile, LPCVOID lpBuffer, DWORD nNumberOfBytesToWrite, LPDWORD lpNumberOfBytesWritten,
                  LPOVERLAPPED lpOverlapped) {
    if (lpOverlapped != nullptr) {
        return startTransfer(hFile, const_cast<void *>(lpBuffer), nNumberOfBytesToWrite, lpOverlapped, true);
    }
    return storeCount(write(toFd(hFile), lpBuffer, nNumberOfBytesToWrite), lpNumberOfBytesWritten);
}

BOOL vllGetOverlappedResult(LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred, BOOL bWait) {
    int32_t count = -1;
    uint32_t event_mask = kNoResult;
    storeCount(count, lpNumberOfBytesTransferred);
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
    storeCount(count, lpNumberOfBytesTransferred);
    if (bWait != 0 && lpOverlapped->eventMask != nullptr) {
        event_mask = *lpOverlapped->eventMask;
    }
    if (count == -1 && event_mask == kNoResult) {
        return Fail(EIO);  // the service keeps no error number
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
