// Robust mutexes, of which mutex objects are made.
#pragma once

#include <pthread.h>

#include "vwincompat/types.h"

// Makes a recursive, process-shared, robust mutex, owned by the caller if owner is not 0: TRUE, or FALSE with errno.
BOOL vlliInitMutex(pthread_mutex_t *mutex, BOOL owner);

// Releases a mutex as often as the calling thread has acquired it. Does nothing when the thread does not own it, or
// when the memory holds no mutex.
void vlliReleaseOwnedMutex(pthread_mutex_t *mutex);

// True while another living thread of this process owns the mutex. The mutex is then linked into that thread's robust
// list, so its memory must neither be reused nor unmapped.
bool vlliIsOwnedByLiveThread(const pthread_mutex_t *mutex);
