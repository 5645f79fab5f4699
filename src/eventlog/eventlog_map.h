// The process's view of the log files, and the records in it. Everything here runs under syslogMutex.
#pragma once

#include "vwincompat/eventlog.h"

// One log file: entry 0 is the current one, entry 1 the one rotated out before it.
struct SyslogMapping {
    uint32_t nRecords;
    const char *pData;  // nSize bytes, read-only and private; null when absent or empty
    uint32_t nSize;
};

constexpr int kSyslogFiles = 2;
extern SyslogMapping SyslogMappings[kSyslogFiles];
extern uint32_t nSyslogRecordsTotal;

constexpr size_t kSyslogPathSize = 64;

// The path of an entry's file.
void vlliGetSyslogPath(int entry, char (&path)[kSyslogPathSize]);

// Where a record was found last, so that its neighbour is one step away. Void once its file's data changed.
struct LineCursor {
    uint32_t generation;
    int entry;
    uint32_t line;  // from 1
    size_t start;   // 0, or the newline before the line
};

struct EventLogHandle {
    int32_t nCurrentRecord;
    alignas(EVENTLOGRECORD) char RecordBuffer[1024];
    int32_t bFirstRead;
    LineCursor cursor;
    EventLogHandle *next;  // in the list of open handles
};

// Brings an entry up to date with its file, and sets *changed (never clears it) when its data is another. FALSE with
// errno and the entry cleared when the file is there but cannot be read.
BOOL vlliMapSyslogFile(int entry, int *changed);

// The same for entry 0, then entry 1; stops at the first failure.
BOOL vlliMapSyslogFiles(int *changed);

// Drops an entry's data: FALSE with errno when munmap(2) fails, the entry is cleared all the same.
BOOL vlliUnmapSyslogFile(int entry);

// Counts the lines anew, after a change.
void vlliGetSyslogRecordsNumber();

// Builds a record into the handle's buffer. TRUE with a Length of 0 for a line that is none of ours; FALSE with
// ERANGE or ENOMSG for a number outside the log.
BOOL vlliGetEventLogRecord(EventLogHandle *handle, DWORD flags, int32_t number);
