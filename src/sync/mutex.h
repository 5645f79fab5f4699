// Mutexes, as the other modules use them.
#pragma once

#include <pthread.h>

#include "core/objmem.h"
#include "vwincompat/mutex.h"

// Makes a recursive, process-shared, robust mutex, owned by the caller if owner is not 0: TRUE, or FALSE with errno.
BOOL vlliInitMutex(pthread_mutex_t *mutex, BOOL owner);

// Releases a mutex for good if the calling thread owns it. What is no mutex of the library is left alone.
void vlliReleaseOwnedMutex(pthread_mutex_t *mutex);

// True while another living thread of this process owns the mutex: it stands in that thread's robust list, so
// that its memory must neither be reused nor unmapped.
bool vlliIsOwnedByLiveThread(const pthread_mutex_t *mutex);

// Gives back the memory-object records of closed mutexes whose owners have gone since.
void vlliReclaimMutexes();

BOOL vlliCloseMutex(ObjectRecord *record);
BOOL vlliDuplicateMutex(ObjectRecord *record, const ObjectRecord *source);
