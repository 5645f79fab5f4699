// Threads, as other modules use them.
#pragma once

#include <semaphore.h>

#include "core/ref.h"
#include "vwincompat/thread.h"

// A thread's shared state, in a memory-object record; every handle of the thread points at it.
struct ThreadData {
    HANDLE handle;  // the thread's own handle; 0 once the thread has ended
    LPTHREAD_START_ROUTINE startAddress;
    LPVOID parameter;
    pthread_t threadId;
    uint32_t exitCode;
    sem_t resumeSem;
};

static_assert(sizeof(ThreadData) <= sizeof(ObjmemRecord::words));
#if !defined(__LP64__)
static_assert(sizeof(ThreadData) == 36 && offsetof(ThreadData, resumeSem) == 20);
#endif

extern const ForkHandlers kThreadForkHandlers;

// The shared state of a thread's record, or null.
inline ThreadData *vlliThreadData(const ObjectRecord *record) {
    return static_cast<ThreadData *>(record->payload);
}

BOOL vlliCloseThread(ObjectRecord *record);
BOOL vlliDuplicateThread(ObjectRecord *record, const ObjectRecord *source);

// True while a thread, whose reference the caller holds, has certainly not signalled its end.
bool vlliThreadRuns(const ObjectRecord *record);
