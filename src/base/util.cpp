// Time arithmetic and the stack dump.

#include "base/util.h"

#include <execinfo.h>
#include <array>
#include <cinttypes>
#include <cstdlib>
#include <memory>

#include "base/allocate.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/log.h"

int vlliCmpTime(const timespec &a, const timespec &b) {
    if (a.tv_sec != b.tv_sec) {
        return a.tv_sec > b.tv_sec ? 1 : -1;
    }
    if (a.tv_nsec != b.tv_nsec) {
        return a.tv_nsec > b.tv_nsec ? 1 : -1;
    }
    return 0;
}

void vlliAddTime(timespec *t, const timespec &d) {
    constexpr int64_t kNanosecondsPerSecond = 1000000000;
    const int64_t sum = int64_t{t->tv_nsec} + d.tv_nsec;
    t->tv_sec += d.tv_sec + static_cast<time_t>(sum / kNanosecondsPerSecond);
    t->tv_nsec = static_cast<long>(sum % kNanosecondsPerSecond);
}

void vlliPrintBacktrace() {
    const NoCancel no_cancel;  // backtrace() may load its unwinder, which opens files
    const KeepErrno keep_errno;
    std::array<void *, 100> frames;
    const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
    vlliLogError("VLL: STACK: backtrace depth = %d\n", depth);
    const HeapBlock<char *> text(backtrace_symbols(frames.data(), depth));
    if (text == nullptr) {
        return;
    }
    for (int i = 0; i < depth; ++i) {
        vlliLogError("VLL: STACK: %s (0x%08" PRIXPTR ")\n", text.get()[i],
                     reinterpret_cast<uintptr_t>(frames[static_cast<size_t>(i)]));
    }
}
