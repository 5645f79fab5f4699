// The counters of eventfd(2) and timerfd(2) descriptors.

#include "base/counter.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "base/guards.h"
#include "base/raw_call.h"

#if defined(__SANITIZE_THREAD__)
char vlliSignalOrder;
#endif

BOOL vlliRaiseCounter(int fd) {
    const uint64_t one = 1;
    vlliAnnotateRelease();
    if constexpr (kRawCalls) {
        return syscall(SYS_write, fd, &one, sizeof one) == sizeof one;
    } else {
        const NoCancel no_cancel;
        return write(fd, &one, sizeof one) == sizeof one;
    }
}

ssize_t vlliTakeCounter(int fd) {
    uint64_t counter;
    if constexpr (kRawCalls) {
        return syscall(SYS_read, fd, &counter, sizeof counter);
    } else {
        const NoCancel no_cancel;
        return read(fd, &counter, sizeof counter);
    }
}
