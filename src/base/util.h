// Time arithmetic and the stack dump.
#pragma once

#include <ctime>

// Returns 1 if a is later than b, -1 if it is earlier, 0 if they are equal.
int vlliCmpTime(const timespec &a, const timespec &b);

// Adds d to t; nanoseconds carry into seconds.
void vlliAddTime(timespec *t, const timespec &d);

// Writes the calling thread's stack to the log, innermost frame first, 100 frames at most.
void vlliPrintBacktrace();
