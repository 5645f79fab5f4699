// Threads: the state that the handles of a thread share, and what the table of types needs of it.
#pragma once

#include <semaphore.h>

#include "core/ref.h"
#include "vwincompat/thread.h"

// A thread's state, which stands in a memory-object record.
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

// The state that a thread's record refers to, or null.
inline ThreadData *vlliThreadData(const ObjectRecord *record) {
    return static_cast<ThreadData *>(record->payload);
}

BOOL vlliCloseThread(ObjectRecord *record);
BOOL vlliDuplicateThread(ObjectRecord *record, const ObjectRecord *source);

// True while the thread of a record, on which the caller holds a reference, has not signalled its end. False may also mean
// that it is about to.
bool vlliThreadRuns(const ObjectRecord *record);
