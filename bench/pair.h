// A benchmark here is a pair: an operation of the library, and the raw system calls that it cannot do without.
// Both are measured in one run, alternately, so that the median of their ratios holds on a busy machine.
//
// A topic's file defines RegisterPairs(). Its bodies are Google Benchmark's: set-up, `for (auto _ : state)`,
// clean-up. Each pair runs in a process of its own, in which vllvwincompatMain() was called: what one pair leaves
// behind cannot change another.
#pragma once

#include <benchmark/benchmark.h>
#include <cstdint>

namespace bench {

using Body = void (*)(benchmark::State &state);

// What is compared. CPU time does not see that another process had the processor, but it does not see waiting
// either: that of the thread is for operations that never block, that of the process for those whose threads
// wait for each other only as long as the scheduler likes.
enum class Clock { wall, cpu, process };

struct Pair {
    const char *operation;  // unique in its binary, at most 60 bytes
    double bound;           // the most that ours may take, in raw floors
    Body ours;
    Body raw;
    Clock clock = Clock::wall;
    int threads = 1;       // that run the body at once; times are per iteration of one thread
    int64_t argument = 0;  // state.range(0)
    int repetitions = 31;  // each of some runs of about 2 ms, and of one iteration at least
    // For threads that wait for each other: whether the scheduler puts them on one processor or on two changes both
    // sides by more than the operation costs.
    bool one_processor = false;
};

void AddPair(const Pair &pair);

// Adds the pairs of this binary.
void RegisterPairs();

}  // namespace bench
