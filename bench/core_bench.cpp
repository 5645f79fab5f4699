// Events, waits and threads beside the system calls that they stand on.

#include <sys/eventfd.h>
#include <unistd.h>

#include "internal.h"
#include "pair.h"
#include "vwincompat.h"

namespace {

void SetResetEvent(benchmark::State &state) {
    const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
    for (auto _ : state) {
        vllSetEvent(event);
        vllResetEvent(event);
    }
    vllCloseHandle(event);
}

void SetResetRaw(benchmark::State &state) {
    const Fd fd(eventfd(0, EFD_NONBLOCK));
    uint64_t counter = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd.get(), &counter, sizeof counter));
        benchmark::DoNotOptimize(read(fd.get(), &counter, sizeof counter));
    }
}

}  // namespace

void bench::RegisterPairs() {
    AddPair({"set and reset an event", 1.3, SetResetEvent, SetResetRaw, Clock::cpu});
}
