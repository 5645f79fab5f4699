#include "base/internal.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <cstdarg>

namespace {

// Short calls on descriptors that never block must not be cancellation points. The raw system call is
// cheaper than switching cancellation off, but ThreadSanitizer sees only the C library's functions.
#if defined(__SANITIZE_THREAD__)
constexpr bool kRawCalls = false;
#else
constexpr bool kRawCalls = true;
#endif

void logLine(int priority, const char *format, va_list arguments) {
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    vsyslog(priority, format, arguments);
}

}  // namespace

#if defined(__SANITIZE_THREAD__)
char vlliSignalOrder;
#endif

void vlliLogError(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLine(LOG_ERR, format, arguments);
    va_end(arguments);
}

void vlliLogNotice(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logLine(LOG_INFO, format, arguments);
    va_end(arguments);
}

int vlliCloseFd(int fd) {
    if constexpr (kRawCalls) {
        return static_cast<int>(syscall(SYS_close, fd));
    } else {
        const NoCancel no_cancel;
        return close(fd);
    }
}

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

int vlliSetNonBlocking(int fd) {
    const NoCancel no_cancel;
    return fcntl(fd, F_SETFL, O_NONBLOCK);
}

int vlliOpenSharedMemory(const char *name, int flags, mode_t mode) {
    const int last_error = errno;
    int fd;
    do {
        fd = shm_open(name, flags, mode);
    } while (fd == -1 && errno == EINTR);
    // Where fs.protected_regular is set, O_CREAT refuses the object of another user that may well be opened.
    if (fd == -1 && errno == EACCES && (flags & (O_CREAT | O_EXCL)) == O_CREAT) {
        fd = vlliOpenSharedMemory(name, flags & ~O_CREAT, mode);
        errno = fd == -1 ? EACCES : last_error;
    }
    return fd;
}

void vlliFreeMemory(int32_t count, ...) {
    va_list pointers;
    va_start(pointers, count);
    for (int32_t i = 0; i < count; ++i) {
        free(va_arg(pointers, void *));  // NOLINT(clang-analyzer-valist.Uninitialized): started above
    }
    va_end(pointers);
}
