// Copying of files. A thread may be cancelled anywhere in a copy, also in the progress routine, which is the caller's
// code: whatever a copy holds lies in one record, which the clean-up finds.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <array>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "files/filemanage.h"
#include "vwincompat/fileops.h"

namespace {

constexpr size_t kChunkSize = 4096;
constexpr uint32_t kChunksPerCall = 16;

struct Copy {
    const char *source;
    const char *target;
    LPPROGRESS_ROUTINE routine;  // null when there is none, or it wants no more calls
    LPVOID data;
    DWORD flags;

    Fd from;
    Fd to;
    int64_t total = -1;
    int64_t copied = 0;
    uint32_t chunks = 0;
    bool delete_target = false;  // for the clean-up
    bool nothing_to_do = false;  // source and target are one
    BOOL result = FALSE;
    int error = 0;
};

// Opens the source: its mode, or 0 with errno. A directory is refused before an existing target is lost.
mode_t openSource(Copy *copy) {
    struct stat status;
    if (stat(copy->source, &status) == -1) {
        return 0;
    }
    if (S_ISDIR(status.st_mode)) {
        return Fail(EISDIR);
    }
    copy->from.reset(
        vlliRetryOnEintr([&] { return vlliBlockInOpen(copy->source, O_RDONLY | O_CLOEXEC, 0); }));
    if (!copy->from || fstat(copy->from.get(), &status) == -1) {
        return 0;
    }
    copy->total = S_ISREG(status.st_mode) ? int64_t{status.st_size} : -1;
    return status.st_mode;
}

int createNew(const char *path, mode_t mode) {
    const NoCancel no_cancel;
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode & (S_IRWXU | S_IRWXG | S_IRWXO));
}

// True when the target is the source itself, behind all symbolic links: unlinking the target would lose the source.
bool isSourceItself(const char *source, const char *target) {
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    const HeapBlock<char> resolved(realpath(source, nullptr));
    return resolved != nullptr && vlliIsSameEntry(resolved.get(), target);
}

bool createTarget(Copy *copy, mode_t mode) {
    copy->to.reset(createNew(copy->target, mode));
    if (!copy->to && errno == EEXIST && (copy->flags & COPY_FILE_FAIL_IF_EXISTS) == 0) {
        copy->nothing_to_do = isSourceItself(copy->source, copy->target);
        if (copy->nothing_to_do) {
            return true;
        }
        unlink(copy->target);
        copy->to.reset(createNew(copy->target, mode));
    }
    copy->delete_target = static_cast<bool>(copy->to);
    return copy->delete_target;
}

// Calls the routine after every 16th chunk: its result.
DWORD reportProgress(Copy *copy, size_t chunk_bytes) {
    if (copy->routine == nullptr || copy->chunks % kChunksPerCall != 0) {
        return PROGRESS_CONTINUE;
    }
    return copy->routine(copy->total, copy->copied, kChunkSize, static_cast<LARGE_INTEGER>(chunk_bytes),
                         copy->chunks, 0, static_cast<HANDLE>(copy->from.get()),
                         static_cast<HANDLE>(copy->to.get()), copy->data);
}

// Writes a chunk with one call. One that is cut short fails with ENOSPC, since write(2) gives no reason for it.
bool writeChunk(int fd, const void *buffer, size_t size) {
    const ssize_t written = vlliRetryOnEintr([&] { return vlliBlockInWrite(fd, buffer, size); });
    if (written >= 0 && static_cast<size_t>(written) < size) {
        return Fail(ENOSPC);
    }
    return written != -1;
}

// EINVAL: this file system does not support fsync(2), which is no failure.
bool flush(int fd) {
    return vlliRetryOnEintr([&] { return vlliBlockInFsync(fd); }) == 0 || errno == EINVAL;
}

bool copyContent(Copy *copy) {
    std::array<char, kChunkSize> buffer;
    for (;;) {
        const ssize_t bytes =
            vlliRetryOnEintr([&] { return vlliBlockInRead(copy->from.get(), buffer.data(), buffer.size()); });
        if (bytes <= 0) {
            return bytes == 0 && flush(copy->to.get());
        }
        const auto chunk = static_cast<size_t>(bytes);
        if (!writeChunk(copy->to.get(), buffer.data(), chunk)) {
            return false;
        }
        ++copy->chunks;
        copy->copied += bytes;
        switch (reportProgress(copy, chunk)) {
            case PROGRESS_STOP:
                copy->delete_target = false;
                flush(copy->to.get());
                return Fail(EINTR);
            case PROGRESS_CANCEL:
                return Fail(EINTR);
            case PROGRESS_QUIET:
                copy->routine = nullptr;
                break;
            default:
                break;
        }
    }
}

void runCopy(void *argument) {
    auto *copy = static_cast<Copy *>(argument);
    const mode_t mode = openSource(copy);
    if (mode != 0 && createTarget(copy, mode)) {
        copy->result = copy->nothing_to_do || copyContent(copy);
    }
    if (copy->result) {
        copy->delete_target = false;
    }
    copy->error = errno;
}

// Called in any case, also when the thread is cancelled.
void endCopy(void *argument) {
    auto *copy = static_cast<Copy *>(argument);
    copy->from.reset();
    copy->to.reset();
    if (copy->delete_target) {
        unlink(copy->target);
        copy->delete_target = false;
    }
}

}  // namespace

BOOL vllCopyFileEx(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, LPPROGRESS_ROUTINE lpProgressRoutine,
                   LPVOID lpData, BOOL *, DWORD dwCopyFlags) {
    if (lpExistingFileName == nullptr || lpNewFileName == nullptr) {
        return Fail(EINVAL);
    }
    Copy copy = {};
    copy.source = lpExistingFileName;
    copy.target = lpNewFileName;
    copy.routine = lpProgressRoutine;
    copy.data = lpData;
    copy.flags = dwCopyFlags;
    vlliCallWithCleanup(runCopy, endCopy, &copy);
    errno = copy.error;
    return copy.result;
}

BOOL vllCopyFile(LPCSTR lpExistingFileName, LPCSTR lpNewFileName, BOOL bFailIfExists) {
    return vllCopyFileEx(lpExistingFileName, lpNewFileName, nullptr, nullptr, nullptr,
                         bFailIfExists != 0 ? COPY_FILE_FAIL_IF_EXISTS : 0);
}
