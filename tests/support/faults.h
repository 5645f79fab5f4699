// Makes a call of the library to the C library fail, where the kernel cannot be made to fail it.
//
//     FailCall fail("epoll_create", 2, EMFILE);   // the second call of this thread from here on
//
// Calls of the library and of the test program can fail, not those that other libraries make. Counts and failures are
// per thread. The calls that can fail are listed in faults.def; add a line for another.
#pragma once

#include <cstdint>

// While it lives, the n-th call (1 is the next) of the calling thread fails with an error; with times,
// that many calls in a row do. A negative error is a signal that the process raises before the call is made.
class FailCall {
  public:
    FailCall(const char *call, int nth, int error, int times = 1);
    ~FailCall();
    FailCall(const FailCall &) = delete;
    FailCall &operator=(const FailCall &) = delete;

    // True once the call was made to fail.
    bool happened() const;

  private:
    int call_;
};

// How often the calling thread made a call since the last resetCallCounts().
uint64_t callCount(const char *call);
void resetCallCounts();
