// Finds the line of a record number. Everything here needs syslogMutex.
#pragma once

#include "eventlog/eventlog_map.h"
#include "eventlog/eventlog_record.h"

// Where a handle found a line last, so that the next line is one step away. Void once the file's bytes have changed.
struct LineCursor {
    uint32_t generation;  // of the file; 0: there is no last line
    int entry;
    uint32_t line;  // from 1, within the file
    size_t start;   // 0, or the newline before the line
};

struct EventLogHandle {
    int32_t nCurrentRecord;
    alignas(EVENTLOGRECORD) char RecordBuffer[kRecordBufferSize];
    int32_t bFirstRead;
    LineCursor cursor;
    EventLogHandle *next;  // in the list of open handles
};

// Builds a record into the handle's buffer. TRUE with a Length of 0 for a line of another program; FALSE with ERANGE or
// ENOMSG for a number outside the log.
BOOL vlliGetEventLogRecord(EventLogHandle *handle, DWORD flags, int32_t number);
