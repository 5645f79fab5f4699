// Robust mutexes, as mutex objects are made of them.
#pragma once

#include <pthread.h>

#include "vwincompat/types.h"

// Makes a recursive, process-shared, robust mutex, owned by the caller if owner is not 0: TRUE, or FALSE with errno.
BOOL vlliInitMutex(pthread_mutex_t *mutex, BOOL owner);

// Releases a mutex for good if the calling thread owns it. Bytes that are no mutex of the library are left alone.
void vlliReleaseOwnedMutex(pthread_mutex_t *mutex);

// True while another living thread of this process owns the mutex. The mutex then stands in that thread's robust list,
// so that its memory must neither be reused nor unmapped.
bool vlliIsOwnedByLiveThread(const pthread_mutex_t *mutex);
