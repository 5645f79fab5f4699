// A benchmark here is a pair: an operation of the library, and the least system calls that do the same. Both are measured
// in one run, alternately, so that the median of their ratios holds on a busy machine.
//
// A topic's file defines registerPairs(). Its bodies are Google Benchmark's: set-up, `for (auto _ : state)`,
// clean-up. Each pair runs in a process of its own, in which vllvwincompatMain() was called: what one pair leaves
// behind cannot change another.
#pragma once

#include <benchmark/benchmark.h>
#include <cstdint>

namespace bench {

using Body = void (*)(benchmark::State &state);

// The time that is compared. CPU time leaves out the time of other processes, but also the time of waits: that of the
// thread is for operations that never block, that of the process for operations whose threads wait for each other, where
// the wait depends on the scheduler alone.
enum class Clock { wall, cpu, process };

struct Pair {
    const char *operation;  // unique in its binary, at most 60 bytes
    double bound;           // the greatest allowed ratio of ours to raw
    Body ours;
    Body raw;
    Clock clock = Clock::wall;
    int threads = 1;       // that run the body at once; times are per iteration of one thread
    int64_t argument = 0;  // state.range(0)
    int repetitions = 31;  // each of some runs of about 2 ms, and of one iteration at least
    // For threads that wait for each other: the time depends more on whether the scheduler puts them on one processor or
    // two than on the operation.
    bool one_processor = false;
};

void addPair(const Pair &pair);

// Adds the pairs of this binary.
void registerPairs();

}  // namespace bench
