// Helpers that every module shares: guards, logging, descriptors.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <cerrno>
#include <cstdlib>

#include "vwincompat/types.h"

// Nothing on a way out may change the last error.
class KeepErrno {
  public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;

  private:
    int saved_;
};

// No cancellation while it lives: for cleanup, logging, and calls that are cancellation points by accident.
class NoCancel {
  public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
    ~NoCancel() { pthread_setcancelstate(state_, nullptr); }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;

  private:
    int state_ = PTHREAD_CANCEL_ENABLE;
};

// Locks a mutex of the library's own for a scope. Failure cannot happen with those that use it.
class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~MutexLock() { unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

    void unlock() {
        if (mutex_ != nullptr) {
            pthread_mutex_unlock(mutex_);
            mutex_ = nullptr;
        }
    }

  private:
    pthread_mutex_t *mutex_;
};

struct FreeDeleter {
    void operator()(void *block) const { free(block); }
};

// close(2), called once, that is no cancellation point. Sets errno when it fails.
int vlliCloseFd(int fd);

// A descriptor that is closed at the end of its scope, with errno kept.
class Fd final {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    // Closing is no cancellation point, so nothing unwinds from here.
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const KeepErrno keep_errno;
            vlliCloseFd(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// syslog(3) at LOG_ERR, and at LOG_INFO. errno is kept, and neither is a cancellation point.
void vlliLogError(const char *format, ...) __attribute__((format(printf, 1, 2)));
void vlliLogNotice(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Adds 1 to an eventfd's counter: TRUE, or FALSE with errno. Not a cancellation point.
BOOL vlliRaiseCounter(int fd);

// For ThreadSanitizer, which cannot see that a signal orders memory when the waiter reads no counter: what
// happened before a signal was raised is visible to whoever saw it.
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

// Reads the counter of an eventfd or timerfd, which clears it: the result of read(2). Not a cancellation point.
ssize_t vlliTakeCounter(int fd);

// Makes a descriptor non-blocking and clears its other status flags: 0, or -1 with errno.
int vlliSetNonBlocking(int fd);

// shm_open(3), also of an object of another user with O_CREAT: a descriptor, or -1 with errno.
int vlliOpenSharedMemory(const char *name, int flags, mode_t mode);

// Frees each of count pointers that is not null.
void vlliFreeMemory(int32_t count, ...);
