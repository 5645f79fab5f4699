// What a line of the log says. A line is a string of at most kLineLimit characters.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vwincompat/eventlog.h"

constexpr size_t kLineLimit = 511;
constexpr size_t kTokenLimit = 63;
constexpr size_t kRecordBufferSize = 1024;

// The time stamp at the start of a line, a local file time.
FILETIME vlliGetRecordTime(const char *line);

// The event type that the facility and priority of a line stand for.
WORD vlliGetEventType(const char *line);

// Builds the record of a line into a zeroed buffer of kRecordBufferSize bytes, which stays zero for a line of another
// program.
void vlliBuildEventLogRecord(const char *line, uint32_t number, char *buffer);
