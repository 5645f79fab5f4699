// Waiting on one object. Mutexes and semaphores are acquired through the calls of their kind; every other object is
// waited for through its descriptor, as in a wait on several objects.

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

// The wait's result for the result of a mutex call. EOWNERDEAD means that the mutex is acquired and its former owner
// dead.
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

// The first attempt, which succeeds for most waits and takes no reference: it acquires the mutex, or takes a unit of
// the semaphore, if that can be done at once. WAIT_FAILED if not, whatever the reason.

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

// Makes the first attempt. If it fails, takes a reference and waits.
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
    const WaitKind kind = vlliWaitKind(hHandle);
    if (kind == WaitKind::kMutex) {
        return acquire<MutexRef>(hHandle, tryMutex, waitForMutex, dwMilliseconds);
    }
    if (kind == WaitKind::kSemaphore) {
        if (dwMilliseconds != 0) {
            pthread_testcancel();  // the first attempt is no cancellation point
        }
        return acquire<SemaphoreRef>(hHandle, trySemaphore, waitForSemaphore, dwMilliseconds);
    }
    return waitForDescriptor(hHandle, kind, dwMilliseconds);
}
