// Mutexes. An unnamed one lives in a memory-object record, a named one in shared memory (sharing/shmem_named.cpp).

#include "sync/mutex.h"

#include "base/failure.h"
#include "base/robust_mutex.h"
#include "core/objmem_types.h"

HANDLE vllCreateMutex(BOOL bInitialOwner, LPCSTR lpName) {
    if (lpName != nullptr && *lpName != '\0') {
        return vlliMakeNamedObject(OBJ_NAMED_MUTEX, lpName, static_cast<uint32_t>(bInitialOwner));
    }
    NewHandle handle(vlliCreateObject(OBJ_MUTEX));
    if (!handle) {
        return 0;
    }
    ObjectRecord *record = handle.record();
    record->fd = -1;
    if (!vlliInitMutex(&record->mem->mutex, bInitialOwner)) {
        return 0;
    }
    if (errno == EEXIST) {
        errno = 0;
    }
    return handle.release();
}

HANDLE vllOpenMutex(LPCSTR lpName) {
    if (lpName == nullptr || *lpName == '\0') {
        return Fail(EINVAL);
    }
    const HANDLE handle = vllCreateMutex(0, lpName);
    if (handle == 0 || errno == EEXIST) {
        return handle;
    }
    vllCloseHandle(handle);
    return Fail(ENOENT);
}

// Takes no reference, so the handle must stay open during the call.
BOOL vllReleaseMutex(HANDLE hMutex) {
    if (!MutexRef::names(hMutex) || !vlliIsIssuedType(hMutex)) {
        return Fail(EINVAL);
    }
    auto *mutex = static_cast<pthread_mutex_t *>(vlliGetObjectAddress(hMutex)->payload);
    return vlliSucceeded(mutex != nullptr ? pthread_mutex_unlock(mutex) : EINVAL);
}

BOOL vlliCloseMutex(ObjectRecord *record) {
    return vlliDetachMutex(record->mem);
}

BOOL vlliDuplicateMutex(ObjectRecord *record, const ObjectRecord *source) {
    record->fd = -1;
    record->flags = source->flags;
    record->mem = source->mem;
    return vlliAttachObjmem(record->mem);
}
