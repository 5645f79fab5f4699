// What a line of the log says. A line is a string of at most kLineLimit characters.
#pragma once

#include "eventlog/eventlog_map.h"

constexpr size_t kLineLimit = 511;
constexpr size_t kTokenLimit = 63;

// The time stamp at the start of a line, a local file time.
FILETIME vlliGetRecordTime(const char *line);

// The event type that the facility and priority of a line stand for.
WORD vlliGetEventType(const char *line);

// Builds the record of a line into a zeroed buffer of 1024 bytes, which stays zero when the line is none of ours.
void vlliBuildEventLogRecord(const char *line, uint32_t number, char *buffer);
