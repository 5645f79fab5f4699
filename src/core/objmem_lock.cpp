// objMemMutex, the innermost lock of the library.

#include <cerrno>

#include "base/failure.h"
#include "core/objmem.h"

pthread_mutex_t objMemMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

int vlliLockMemoryMutex() {
    int error = pthread_mutex_lock(&objMemMutex);
    if (error == EOWNERDEAD) {
        error = pthread_mutex_consistent(&objMemMutex);
    }
    vlliSucceeded(error);
    return error;
}
