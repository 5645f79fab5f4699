// Waiting on one object. Mutexes and semaphores are acquired by their own calls; every other object is waited for
// through its descriptor, as in a wait on several objects.

#include <pthread.h>
#include <semaphore.h>
#include <ctime>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/log.h"
#include "base/util.h"
#include "core/objmem_types.h"
#include "core/ref.h"
#include "sync/mutex.h"
#include "sync/semaphore.h"
#include "sync/waitformultipleobjects.h"

namespace {

timespec deadlineAfter(DWORD milliseconds) {
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    timespec relative = {};
    relative.tv_sec = static_cast<time_t>(milliseconds / 1000);
    relative.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    vlliAddTime(&deadline, relative);
    return deadline;
}

// The wait's result for that of a mutex call. EOWNERDEAD acquired the mutex, too.
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
            return Fail(error, WAIT_FAILED);
    }
}

// Acquires the mutex, or takes a unit of the semaphore, if that can be done at once, as most waits can, without a
// reference on the record. WAIT_FAILED if not, whatever the reason.

DWORD tryMutex(HANDLE handle) {
    const PinnedMutex mutex(handle);
    if (mutex.state() == nullptr) {
        return WAIT_FAILED;
    }
    return mutexResult(mutex.state(), pthread_mutex_trylock(mutex.state()));
}

DWORD trySemaphore(HANDLE handle) {
    const PinnedSemaphore semaphore(handle);
    return semaphore.state() != nullptr && sem_trywait(semaphore.state()) == 0 ? WAIT_OBJECT_0 : WAIT_FAILED;
}

DWORD waitForMutex(pthread_mutex_t *mutex, DWORD milliseconds) {
    if (milliseconds == 0) {
        return mutexResult(mutex, pthread_mutex_trylock(mutex));
    }
    if (milliseconds == INFINITE) {
        return mutexResult(mutex, vlliBlockInMutexLock(mutex));
    }
    const timespec deadline = deadlineAfter(milliseconds);
    return mutexResult(mutex, vlliBlockInMutexTimedlock(mutex, &deadline));
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
    if (vlliRetryOnEintr([&] { return blockForSemaphore(semaphore, milliseconds, &deadline); }) == 0) {
        return WAIT_OBJECT_0;
    }
    return errno == ETIMEDOUT ? WAIT_TIMEOUT : WAIT_FAILED;
}

// Tries a mutex or a semaphore at once; then takes a reference and waits.
template <typename AnyRef, typename State>
DWORD acquire(HANDLE handle, DWORD (*try_at_once)(HANDLE), DWORD (*wait)(State *, DWORD),
              DWORD milliseconds) {
    {
        const KeepErrno keep_errno;
        const DWORD result = try_at_once(handle);
        if (result != WAIT_FAILED) {
            return result;
        }
    }
    const AnyRef object(handle);
    if (!object) {
        vlliLogError("VLL: WaitForSingleObject: invalid event handle = %d\n", static_cast<int>(handle));
        return Fail(EINVAL, WAIT_FAILED);
    }
    return object.state() != nullptr ? wait(object.state(), milliseconds) : Fail(EFAULT, WAIT_FAILED);
}

DWORD waitForDescriptor(HANDLE handle, WaitKind kind, DWORD milliseconds) {
    const ObjectRef object(handle);
    if (!object) {
        vlliLogError("VLL: WaitForSingleObject: invalid event handle = %d\n", static_cast<int>(handle));
        return Fail(EINVAL, WAIT_FAILED);
    }
    if (!vlliHasDescriptor(kind)) {
        vlliLogError("VLL: WaitForSingleObject: invalid object type ( handle = %d, type = 0x%X)\n",
                     static_cast<int>(handle), vlliGetObjectType(handle));
        return Fail(EINVAL, WAIT_FAILED);
    }
    return vlliWaitForRecord(handle, object.get(), milliseconds);
}

}  // namespace

DWORD vllWaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
    const ObjectType *type = vlliFindObjectType(vlliGetObjectType(hHandle));
    const WaitKind kind = type != nullptr ? type->wait : WaitKind::kNone;
    if (kind == WaitKind::kMutex) {
        return acquire<MutexRef>(hHandle, tryMutex, waitForMutex, dwMilliseconds);
    }
    if (kind == WaitKind::kSemaphore) {
        if (dwMilliseconds != 0) {
            pthread_testcancel();  // also when a unit can be taken without waiting
        }
        return acquire<SemaphoreRef>(hHandle, trySemaphore, waitForSemaphore, dwMilliseconds);
    }
    return waitForDescriptor(hHandle, kind, dwMilliseconds);
}
