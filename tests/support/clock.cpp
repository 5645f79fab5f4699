#include "support/clock.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "support/private_machine.h"

namespace {

std::atomic<bool> fake_time;
std::atomic<time_t> fake_now;
CatchClockSetting *catcher;

}  // namespace

FakeTime::FakeTime(time_t now) {
    fake_now = now;
    fake_time = true;
}

FakeTime::~FakeTime() {
    fake_time = false;
}

void FakeTime::set(time_t now) {
    fake_now = now;
}

CatchClockSetting::CatchClockSetting(int failure) : error(failure) {
    catcher = this;
}

CatchClockSetting::~CatchClockSetting() {
    catcher = nullptr;
}

extern "C" {

time_t __real_time(time_t *out);
time_t __wrap_time(time_t *out) {
    if (!fake_time) {
        return __real_time(out);
    }
    const time_t now = fake_now;
    if (now == -1) {
        errno = EFAULT;
    }
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int __real_settimeofday(const timeval *value, const struct timezone *zone);
int __wrap_settimeofday(const timeval *value, const struct timezone *zone) {
    if (catcher == nullptr) {
        if (!onTarget()) {
            abort();
        }
        return __real_settimeofday(value, zone);
    }
    ++catcher->calls;
    catcher->value = *value;
    catcher->with_zone = zone != nullptr;
    errno = catcher->error;
    return catcher->error == 0 ? 0 : -1;
}
}
