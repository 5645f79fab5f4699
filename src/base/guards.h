// Guards that hold something for a scope: cancellation disabled, a mutex locked.
#pragma once

#include <pthread.h>

// Disables cancellation for a scope: for clean-up, for logging, and for calls that are cancellation points by
// accident.
class NoCancel {
  public:
    NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
    ~NoCancel() { pthread_setcancelstate(state_, nullptr); }
    NoCancel(const NoCancel &) = delete;
    NoCancel &operator=(const NoCancel &) = delete;

  private:
    int state_ = PTHREAD_CANCEL_ENABLE;
};

// Holds a mutex of the library's own for a scope. They are plain mutexes, so that locking one cannot fail.
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
