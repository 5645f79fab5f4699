// The clock as the library sees it: a test chooses the result of time(2) and intercepts settimeofday(2). The
// machine's clock is never changed: without a CatchClockSetting the test aborts at settimeofday(2), except on the
// emulated target.
#pragma once

#include <sys/time.h>
#include <ctime>

// While it lives, time(2) returns this to the whole process; -1: it fails.
class FakeTime {
  public:
    explicit FakeTime(time_t now);
    ~FakeTime();
    FakeTime(const FakeTime &) = delete;
    FakeTime &operator=(const FakeTime &) = delete;

    void set(time_t now);
};

// While it lives, settimeofday(2) only records its arguments, and succeeds or fails with an error.
class CatchClockSetting {
  public:
    explicit CatchClockSetting(int error = 0);
    ~CatchClockSetting();
    CatchClockSetting(const CatchClockSetting &) = delete;
    CatchClockSetting &operator=(const CatchClockSetting &) = delete;

    int error;
    int calls = 0;
    timeval value = {};
    bool with_zone = false;
};
