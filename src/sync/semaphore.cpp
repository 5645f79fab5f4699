// Semaphores. An unnamed one lives in a memory-object record, a named one in shared memory (sharing/shmem_named.cpp).

#include "sync/semaphore.h"

#include "base/failure.h"
#include "core/objmem_types.h"

BOOL vlliInitSemaphore(sem_t *semaphore, uint32_t count) {
    return sem_init(semaphore, 1, count) == 0;
}

HANDLE vllCreateSemaphore(LONG lInitialCount, LPCSTR lpName) {
    if (lpName != nullptr && *lpName != '\0') {
        return vlliMakeNamedObject(OBJ_NAMED_SEMAPHORE, lpName, static_cast<uint32_t>(lInitialCount));
    }
    NewHandle handle(vlliCreateObject(OBJ_SEMAPHORE));
    if (!handle) {
        return 0;
    }
    ObjectRecord *record = handle.record();
    record->fd = -1;
    if (!vlliInitSemaphore(&record->mem->semaphore, static_cast<uint32_t>(lInitialCount))) {
        return 0;
    }
    if (errno == EEXIST) {
        errno = 0;
    }
    return handle.release();
}

BOOL vllReleaseSemaphore(HANDLE hSemaphore) {
    {
        const PinnedSemaphore semaphore(hSemaphore);
        if (semaphore.state() != nullptr) {
            return sem_post(semaphore.state()) == 0;
        }
    }
    const SemaphoreRef semaphore(hSemaphore);
    if (!semaphore) {
        return FALSE;
    }
    return semaphore.state() != nullptr ? sem_post(semaphore.state()) == 0 : Fail(EINVAL);
}

BOOL vlliCloseSemaphore(ObjectRecord *record) {
    return vlliDetachObjmem(record->mem);
}

BOOL vlliDuplicateSemaphore(ObjectRecord *record, const ObjectRecord *source) {
    record->fd = -1;
    record->flags = source->flags;
    record->mem = source->mem;
    return vlliAttachObjmem(record->mem);
}
