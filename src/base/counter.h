// The counters of eventfd(2) and timerfd(2) descriptors, which carry the signals of events, timers and threads.
#pragma once

#include <sys/types.h>

#include "vwincompat/types.h"

// Adds 1 to an eventfd's counter: TRUE, or FALSE with errno. Not a cancellation point.
BOOL vlliRaiseCounter(int fd);

// Reads the counter of an eventfd or timerfd, which clears it: the result of read(2). Not a cancellation point.
ssize_t vlliTakeCounter(int fd);

// What happened before a counter was raised is visible to a thread that has seen it raised. ThreadSanitizer cannot
// see this order when the waiter does not read the counter, so both sides announce it.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
extern char vlliSignalOrder;
inline void vlliAnnotateAcquire() {
    __tsan_acquire(&vlliSignalOrder);
}
inline void vlliAnnotateRelease() {
    __tsan_release(&vlliSignalOrder);
}
#else
inline void vlliAnnotateAcquire() {}
inline void vlliAnnotateRelease() {}
#endif
