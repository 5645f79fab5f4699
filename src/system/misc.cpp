// Beeps on the console's speaker, and numbers as text.

#include <fcntl.h>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"
#include "vwincompat/process.h"
#include "vwincompat/system.h"

namespace {

const char *const kConsole = "/dev/tty10";
constexpr int32_t kTimerClock = 1193180;  // hertz
constexpr int32_t kBeepReserveMs = 25;
constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";

// The argument of the console's tone request KDMKTONE: the duration in ms in the upper 16 bits, the period in ticks of the
// timer's clock in the lower ones. The frequency, in hertz, must not be 0.
uint32_t toneArgument(int16_t frequency, int16_t duration) {
    return (static_cast<uint32_t>(duration) << 16) + static_cast<uint32_t>(kTimerClock / frequency);
}

Fd openConsole() {
    const NoCancel no_cancel;
    return Fd(open(kConsole, O_RDONLY | O_NOCTTY | O_CLOEXEC));
}

// Writes the digits of a number in a radix from 2 to 36, with a sign if it is negative: the buffer, or null with EINVAL.
LPSTR convert(uint32_t value, bool negative, char *buffer, int32_t radix) {
    if (buffer == nullptr || radix < 2 || radix > 36) {
        return Fail(EINVAL);
    }
    const auto base = static_cast<uint32_t>(radix);
    char *end = buffer;
    do {
        *end++ = kDigits[value % base];
        value /= base;
    } while (value != 0);
    if (negative) {
        *end++ = '-';
    }
    *end = '\0';
    std::reverse(buffer, end);
    return buffer;
}

}  // namespace

BOOL vllBeep(DWORD dwFreq, DWORD dwDuration) {
    const auto frequency = static_cast<int16_t>(dwFreq);
    const auto duration = static_cast<int16_t>(dwDuration);
    if (frequency == 0) {
        return Fail(EINVAL);
    }
    const Fd console = openConsole();
    if (!console) {
        vlliLogError("vllBeep: Error opening console %d - %s\n", errno, strerror(errno));
        return FALSE;
    }
    const unsigned long argument = toneArgument(frequency, duration);
    if (ioctl(console.get(), KDMKTONE, argument) == -1) {
        vlliLogError("vllBeep: ioctl error playing sound %d - %s\n", errno, strerror(errno));
        return FALSE;
    }
    const KeepErrno keep_errno;  // a negative duration is refused there: the call then returns at once
    vllSleep(static_cast<DWORD>(duration + kBeepReserveMs));
    return TRUE;
}

BOOL vllMessageBeep(UINT) {
    return vllBeep(700, 125);
}

LPSTR vllitoa(int32_t nValue, LPSTR lpBuffer, int32_t nRadix) {
    const bool negative = nRadix == 10 && nValue < 0;
    const auto value = static_cast<uint32_t>(nValue);
    return convert(negative ? 0 - value : value, negative, lpBuffer, nRadix);
}

LPSTR vllultoa(uint32_t nValue, LPSTR lpBuffer, int32_t nRadix) {
    return convert(nValue, false, lpBuffer, nRadix);
}
