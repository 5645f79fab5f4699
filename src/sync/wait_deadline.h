// The end of a wait on descriptors.
#pragma once

#include <time.h>
#include <cstdint>

// The moment on the monotonic clock at which a time-out in milliseconds ends. A negative time-out never ends.
class WaitDeadline {
  public:
    explicit WaitDeadline(int32_t timeout_ms) : timeout_ms_(timeout_ms) { restart(); }

    // Begins the whole time-out again.
    void restart() {
        if (timeout_ms_ > 0) {
            end_ns_ = nowNs() + timeout_ms_ * kNanosecondsPerMs;
        }
    }
    // The rest, rounded up so that no wait ends early.
    int32_t remainingMs() const {
        if (timeout_ms_ <= 0) {
            return timeout_ms_;
        }
        const int64_t left_ns = end_ns_ - nowNs();
        return left_ns > 0 ? static_cast<int32_t>((left_ns + kNanosecondsPerMs - 1) / kNanosecondsPerMs) : 0;
    }

  private:
    static constexpr int64_t kNanosecondsPerMs = 1000000;

    static int64_t nowNs() {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
    }

    int32_t timeout_ms_;
    int64_t end_ns_ = 0;
};
