// Named mutexes and semaphores: one shared-memory object each, which holds exactly the POSIX mutex or semaphore.

#include <unistd.h>

#include "base/failure.h"
#include "base/guards.h"
#include "base/robust_mutex.h"
#include "core/ref.h"
#include "sharing/shmem.h"
#include "sharing/shmem_objects.h"
#include "sharing/shmem_protocol.h"
#include "sync/semaphore.h"

namespace {

union Payload {
    pthread_mutex_t mutex;
    sem_t semaphore;
};

SIZE_T payloadSize(uint32_t type) {
    switch (type) {
        case OBJ_NAMED_MUTEX:
            return sizeof(pthread_mutex_t);
        case OBJ_NAMED_SEMAPHORE:
            return sizeof(sem_t);
        default:
            return 0;
    }
}

// Gives a new object its content in one write, so that a creator that is killed leaves nothing half made. A primitive
// that nobody has used yet holds no address and may be copied.
BOOL writePayload(int fd, uint32_t type, uint32_t initial) {
    Payload payload = {};
    const BOOL made = type == OBJ_NAMED_MUTEX ? vlliInitMutex(&payload.mutex, 0)
                                              : vlliInitSemaphore(&payload.semaphore, initial);
    if (!made) {
        return FALSE;
    }
    const auto size = static_cast<ssize_t>(payloadSize(type));
    const ssize_t written = pwrite(fd, &payload, static_cast<size_t>(size), 0);
    if (written >= 0 && written < size) {
        errno = ENOSPC;
    }
    return written == size;
}

// Takes the ownership that the creator asked for, then gives other processes access.
BOOL finishCreation(const ObjectRecord *record, uint32_t type, uint32_t initial) {
    const bool owned = type != OBJ_NAMED_MUTEX || initial == 0 ||
                       vlliSucceeded(pthread_mutex_lock(static_cast<pthread_mutex_t *>(record->addr)));
    return owned && vlliUseSharedFile(record->fd) == 0;
}

}  // namespace

HANDLE vlliCreateNamedObject(uint32_t type, LPCSTR name, uint32_t initial) {
    const SIZE_T size = payloadSize(type);
    if (size == 0) {
        return Fail(EINVAL);
    }
    const NoCancel no_cancel;
    NewHandle handle(vlliCreateObject(type));
    if (!handle) {
        return 0;
    }
    ObjectRecord *record = handle.record();
    record->fd = -1;
    PendingFd file = vlliCreateSharedFile(O_RDWR, size, name, true);
    if (!file) {
        return 0;
    }
    const bool existed = errno == EEXIST;
    if (!existed && !writePayload(file.get(), type, initial)) {
        return 0;
    }
    if (!vlliEnterSharedFile(record, &file, size) || (!existed && !finishCreation(record, type, initial))) {
        return 0;
    }
    return Fail(existed ? EEXIST : 0, handle.release());
}

BOOL vlliCloseNamedObject(ObjectRecord *record) {
    const NoCancel no_cancel;
    vlliCloseSharedFile(record, true);
    return TRUE;
}

BOOL vlliDuplicateNamedObject(ObjectRecord *record, const ObjectRecord *source) {
    record->flags = source->flags;
    return vlliShareSharedFile(record, source, true);
}
