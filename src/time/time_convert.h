// Conversions between broken-down times, seconds and ticks, for all modules.
#pragma once

#include <ctime>

#include "vwincompat/types.h"

// Fills all fields but wMilliseconds.
void vlliTmToSystemTime(const tm &broken_down, SYSTEMTIME *system_time);

// The fields as glibc takes them; the daylight flag is 0.
tm vlliSystemTimeToTm(const SYSTEMTIME &system_time);

// Stores seconds as a file time, or -1 with EOVERFLOW when they do not fit. FALSE when -1 is stored.
BOOL vlliSecondsToFileTime(time_t seconds, FILETIME *file_time);

// The 32-bit millisecond count of a monotonic time.
DWORD vlliTickCount(const timespec &time);
