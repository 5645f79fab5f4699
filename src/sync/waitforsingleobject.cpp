#include <pthread.h>
#include <semaphore.h>
#include <ctime>

#include "base/internal_blocking.h"
#include "base/util.h"
#include "core/objmem.h"
#include "sync/waitformultipleobjects.h"
#include "vwincompat/wait.h"

namespace {

constexpr bool isMutexType(uint32_t type) {
    return type == OBJ_MUTEX || type == OBJ_NAMED_MUTEX;
}

constexpr bool isSemaphoreType(uint32_t type) {
    return type == OBJ_SEMAPHORE || type == OBJ_NAMED_SEMAPHORE;
}

timespec deadlineAfter(DWORD milliseconds) {
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    timespec relative = {};
    relative.tv_sec = static_cast<time_t>(milliseconds / 1000);
    relative.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    vlliAddTime(&deadline, relative);
    return deadline;
}

// The result of a mutex call; EOWNERDEAD gave the mutex, too.
DWORD mutexResult(pthread_mutex_t *mutex, int error) {
    switch (error) {
        case 0:
            return WAIT_OBJECT_0;
        case ETIMEDOUT:
            return WAIT_TIMEOUT;
        case EOWNERDEAD:
            pthread_mutex_consistent(mutex);
            return WAIT_ABANDONED;
        default:
            errno = error;
            return WAIT_FAILED;
    }
}

// Acquires the mutex or takes a unit if that can be done at once, as most waits can, without a reference on the
// record. WAIT_FAILED if not, whatever the reason.
DWORD tryAtOnce(HANDLE handle, uint32_t type) {
    const PinnedRecord record(handle);
    if (!record || record->addr == nullptr) {
        return WAIT_FAILED;
    }
    // The third word points at the primitive, or at a memory-object record, which starts with it.
    if (isMutexType(type)) {
        auto *mutex = static_cast<pthread_mutex_t *>(record->addr);
        return mutexResult(mutex, pthread_mutex_trylock(mutex));
    }
    return sem_trywait(static_cast<sem_t *>(record->addr)) == 0 ? WAIT_OBJECT_0 : WAIT_FAILED;
}

int blockForMutex(pthread_mutex_t *mutex, DWORD milliseconds) {
    if (milliseconds == 0) {
        return pthread_mutex_trylock(mutex);
    }
    if (milliseconds == INFINITE) {
        return vlliBlockInMutexLock(mutex);
    }
    const timespec deadline = deadlineAfter(milliseconds);
    return vlliBlockInMutexTimedlock(mutex, &deadline);
}

int blockForSemaphore(sem_t *semaphore, DWORD milliseconds, const timespec *deadline) {
    if (milliseconds == 0) {
        return sem_trywait(semaphore);
    }
    if (milliseconds == INFINITE) {
        return vlliBlockInSemWait(semaphore);
    }
    return vlliBlockInSemTimedwait(semaphore, deadline);
}

DWORD waitForSemaphore(sem_t *semaphore, DWORD milliseconds) {
    const timespec deadline = deadlineAfter(milliseconds);
    int result;
    do {
        result = blockForSemaphore(semaphore, milliseconds, &deadline);
    } while (result == -1 && errno == EINTR);
    if (result == 0) {
        return WAIT_OBJECT_0;
    }
    return errno == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

DWORD waitForRecord(HANDLE handle, ObjectRecord *record, DWORD milliseconds) {
    const uint32_t type = vlliGetObjectType(handle);
    if (vlliIsDescriptorType(type)) {
        return vlliWaitForRecord(handle, record, milliseconds);
    }
    if (!isMutexType(type) && !isSemaphoreType(type)) {
        vlliLogError("VLL: WaitForSingleObject: invalid object type ( handle = %d, type = 0x%X)\n",
                     static_cast<int>(handle), type);
        errno = EINVAL;
        return WAIT_FAILED;
    }
    if (record->addr == nullptr) {
        errno = EFAULT;
        return WAIT_FAILED;
    }
    if (isMutexType(type)) {
        auto *mutex = static_cast<pthread_mutex_t *>(record->addr);
        return mutexResult(mutex, blockForMutex(mutex, milliseconds));
    }
    return waitForSemaphore(static_cast<sem_t *>(record->addr), milliseconds);
}

}  // namespace

DWORD vllWaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    const uint32_t type = vlliGetObjectType(hHandle);
    if (isMutexType(type) || isSemaphoreType(type)) {
        if (isSemaphoreType(type) && dwMilliseconds != 0) {
            pthread_testcancel();  // also when there is no need to wait
        }
        const KeepErrno keep_errno;
        const DWORD result = tryAtOnce(hHandle, type);
        if (result != WAIT_FAILED) {
            return result;
        }
    }
    const ObjectRef object(hHandle);
    if (!object) {
        vlliLogError("VLL: WaitForSingleObject: invalid event handle = %d\n", static_cast<int>(hHandle));
        errno = EINVAL;
        return WAIT_FAILED;
    }
    return waitForRecord(hHandle, object.get(), dwMilliseconds);
}
