// The clock as the library sees it: time(2) answers what a test wants, settimeofday(2) is caught. Nothing here
// ever changes the machine's clock; without a stand-in a call that would is the end of the test, but on the target.
#pragma once

#include <sys/time.h>
#include <ctime>

// While it lives, time(2) answers this (-1: it fails) to the whole process.
class FakeTime {
  public:
    explicit FakeTime(time_t now);
    ~FakeTime();
    FakeTime(const FakeTime &) = delete;
    FakeTime &operator=(const FakeTime &) = delete;

    void set(time_t now);
};

// While it lives, settimeofday(2) only notes what it was asked: it succeeds, or fails with an error.
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
