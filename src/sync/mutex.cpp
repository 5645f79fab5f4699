#include "sync/mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sharing/shmem.h"

namespace {

// Records of closed mutexes that another thread still owned, by index. Such a mutex stands in its owner's
// robust list; a reused record would corrupt the list. Touched with atomic operations only, so that no lock is
// left behind by fork().
bool ownedWhenClosed[kObjmemCount];
int32_t ownedWhenClosedCount;

int initAttributes(pthread_mutexattr_t *attributes) {
    int error = pthread_mutexattr_settype(attributes, PTHREAD_MUTEX_RECURSIVE);
    if (error == 0) {
        error = pthread_mutexattr_setpshared(attributes, PTHREAD_PROCESS_SHARED);
    }
    if (error == 0) {
        error = pthread_mutexattr_setrobust(attributes, PTHREAD_MUTEX_ROBUST);
    }
    return error;
}

int initRobustMutex(pthread_mutex_t *mutex) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) {
        return error;
    }
    error = initAttributes(&attributes);
    if (error == 0) {
        error = pthread_mutex_init(mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    return error;
}

pid_t currentTid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

}  // namespace

BOOL vlliInitMutex(pthread_mutex_t *mutex, BOOL owner) {
    int error = initRobustMutex(mutex);
    if (error == 0 && owner != 0) {
        error = pthread_mutex_lock(mutex);
        if (error == EOWNERDEAD) {
            error = pthread_mutex_consistent(mutex);
        }
    }
    if (error != 0) {
        errno = error;
        return FALSE;
    }
    return TRUE;
}

void vlliReleaseOwnedMutex(pthread_mutex_t *mutex) {
    const int self = currentTid();
    // The owner's word tells, not a failing unlock: bytes that are no mutex never fail.
    while (__atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED) == self &&
           pthread_mutex_unlock(mutex) == 0) {
    }
}

bool vlliIsOwnedByLiveThread(const pthread_mutex_t *mutex) {
    const KeepErrno keep_errno;
    const int word = __atomic_load_n(&mutex->__data.__lock, __ATOMIC_ACQUIRE);
    const auto owner = static_cast<pid_t>(static_cast<uint32_t>(word) & FUTEX_TID_MASK);
    return owner != 0 && syscall(SYS_tgkill, getpid(), owner, 0) == 0;
}

void vlliReclaimMutexes() {
    if (__atomic_load_n(&ownedWhenClosedCount, __ATOMIC_RELAXED) == 0) {
        return;
    }
    for (uint32_t i = 0; i < kObjmemCount; ++i) {
        if (!__atomic_exchange_n(&ownedWhenClosed[i], false, __ATOMIC_ACQ_REL)) {
            continue;
        }
        vlliReleaseOwnedMutex(&objmem[i].mutex);
        if (vlliIsOwnedByLiveThread(&objmem[i].mutex)) {
            __atomic_store_n(&ownedWhenClosed[i], true, __ATOMIC_RELEASE);
        } else {
            __atomic_sub_fetch(&ownedWhenClosedCount, 1, __ATOMIC_RELAXED);
            vlliDetachObjmem(&objmem[i]);
        }
    }
}

HANDLE vllCreateMutex(BOOL bInitialOwner, LPCSTR lpName) {
    if (lpName != nullptr && *lpName != '\0') {
        return vlliCreateNamedObject(OBJ_NAMED_MUTEX, lpName, static_cast<uint32_t>(bInitialOwner));
    }
    vlliReclaimMutexes();
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
        errno = EINVAL;
        return 0;
    }
    const HANDLE handle = vllCreateMutex(0, lpName);
    if (handle == 0 || errno == EEXIST) {
        return handle;
    }
    vllCloseHandle(handle);
    errno = ENOENT;
    return 0;
}

BOOL vllReleaseMutex(HANDLE hMutex) {
    const uint32_t type = vlliGetObjectType(hMutex);
    if ((type != OBJ_MUTEX && type != OBJ_NAMED_MUTEX) || !vlliIsIssuedType(hMutex)) {
        errno = EINVAL;
        return FALSE;
    }
    // The mutex is what the third word points at, for both types: a memory-object record starts with its payload.
    auto *mutex = static_cast<pthread_mutex_t *>(vlliGetObjectAddress(hMutex)->addr);
    const int error = mutex != nullptr ? pthread_mutex_unlock(mutex) : EINVAL;
    if (error != 0) {
        errno = error;
        return FALSE;
    }
    return TRUE;
}

BOOL vlliCloseMutex(ObjectRecord *record) {
    vlliReclaimMutexes();
    ObjmemRecord *mem = record->mem;
    TableLock lock;
    if (lock.held() && mem->refCount > 1) {
        --mem->refCount;
        return TRUE;
    }
    lock.unlock();
    // The last one: nobody else can reach the record any more.
    vlliReleaseOwnedMutex(&mem->mutex);
    if (vlliIsOwnedByLiveThread(&mem->mutex)) {
        __atomic_add_fetch(&ownedWhenClosedCount, 1, __ATOMIC_RELAXED);
        __atomic_store_n(&ownedWhenClosed[mem - objmem], true, __ATOMIC_RELEASE);
        return TRUE;
    }
    return vlliDetachObjmem(mem);
}

BOOL vlliDuplicateMutex(ObjectRecord *record, const ObjectRecord *source) {
    record->fd = -1;
    record->flags = source->flags;
    record->mem = source->mem;
    return vlliAttachObjmem(record->mem);
}
