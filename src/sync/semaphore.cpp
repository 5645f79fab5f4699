#include "sync/semaphore.h"

#include "sharing/shmem.h"
#include "sync/mutex.h"

BOOL vlliInitSemaphore(sem_t *semaphore, uint32_t count) {
    return sem_init(semaphore, 1, count) == 0;
}

HANDLE vllCreateSemaphore(LONG lInitialCount, LPCSTR lpName) {
    if (lpName != nullptr && *lpName != '\0') {
        return vlliCreateNamedObject(OBJ_NAMED_SEMAPHORE, lpName, static_cast<uint32_t>(lInitialCount));
    }
    vlliReclaimMutexes();
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
    const uint32_t type = vlliGetObjectType(hSemaphore);
    const bool is_semaphore = type == OBJ_SEMAPHORE || type == OBJ_NAMED_SEMAPHORE;
    if (is_semaphore) {
        const PinnedRecord semaphore(hSemaphore);
        if (semaphore && semaphore->addr != nullptr) {
            return sem_post(static_cast<sem_t *>(semaphore->addr)) == 0;
        }
    }
    const ObjectRef semaphore(hSemaphore);
    if (!semaphore) {
        return FALSE;
    }
    if (!is_semaphore || semaphore->addr == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    return sem_post(static_cast<sem_t *>(semaphore->addr)) == 0;
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
