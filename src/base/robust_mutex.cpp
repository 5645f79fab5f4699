// Robust mutexes. No function of the C library returns the owner, so it is read from the fields of pthread_mutex_t.

#include "base/robust_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/failure.h"

namespace {

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

}  // namespace

BOOL vlliInitMutex(pthread_mutex_t *mutex, BOOL owner) {
    int error = initRobustMutex(mutex);
    if (error == 0 && owner != 0) {
        error = pthread_mutex_lock(mutex);
        if (error == EOWNERDEAD) {
            error = pthread_mutex_consistent(mutex);
        }
    }
    return vlliSucceeded(error);
}

void vlliReleaseOwnedMutex(pthread_mutex_t *mutex) {
    const auto self = static_cast<int>(syscall(SYS_gettid));
    // The owner field is checked before each unlock: unlocking bytes that are no mutex would never fail.
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
