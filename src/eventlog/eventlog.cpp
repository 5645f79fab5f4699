// The event-log operations. All that they share is guarded by syslogMutex, and none is a cancellation point.
#include "vwincompat/eventlog.h"

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/allocate.h"
#include "base/failure.h"
#include "base/guards.h"
#include "eventlog/eventlog.h"
#include "eventlog/eventlog_lines.h"

pthread_mutex_t syslogMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// The open handles, and how many they are.
EventLogHandle *open_handles;
uint32_t nRefCount;

// Holds the lock for an operation, with cancellation disabled.
class LogLock {
  private:
    NoCancel no_cancel_;
    MutexLock lock_{&syslogMutex};
};

// The link of the list that points to a handle, or null when it is not open.
EventLogHandle **findHandle(const void *handle) {
    for (EventLogHandle **link = &open_handles; *link != nullptr; link = &(*link)->next) {
        if (*link == handle) {
            return link;
        }
    }
    return nullptr;
}

// Brings the copies up to date. The counts follow them also where only one of the files could be read.
BOOL refresh() {
    int changed = 0;
    const BOOL mapped = vlliMapSyslogFiles(&changed);
    if (changed != 0) {
        const KeepErrno keep_errno;
        vlliGetSyslogRecordsNumber();
    }
    return mapped;
}

BOOL unmapAll() {
    BOOL unmapped = TRUE;
    for (int entry = 0; entry < kSyslogFiles; ++entry) {
        unmapped = log_files[entry].drop() && unmapped;
    }
    nSyslogRecordsTotal = 0;
    return unmapped;
}

// Takes a handle out of the list and frees it; the copies go with the last one.
BOOL dropHandle(EventLogHandle **link) {
    const HeapBlock<EventLogHandle> handle(*link);
    *link = handle->next;
    return --nRefCount > 0 || unmapAll();
}

bool exactlyOne(DWORD flags, DWORD a, DWORD b) {
    return ((flags & a) != 0) != ((flags & b) != 0);
}

bool isInLog(int32_t number) {
    return number >= 1 && static_cast<uint32_t>(number) <= nSyslogRecordsTotal;
}

// What a read brought.
struct ReadResult {
    DWORD stored;  // bytes
    DWORD needed;  // the size of the record that did not fit, or 0
    int error;     // why there was none
};

// Reads records from the current one on, as many as fit.
ReadResult readRecords(EventLogHandle *handle, DWORD flags, char *out, DWORD size) {
    const uint32_t step = (flags & EVENTLOG_FORWARDS_READ) != 0 ? 1U : UINT32_MAX;
    DWORD stored = 0;
    do {
        if (!vlliGetEventLogRecord(handle, flags, handle->nCurrentRecord)) {
            return {stored, 0, errno};
        }
        DWORD length;
        memcpy(&length, handle->RecordBuffer, sizeof length);
        if (length > size - stored) {
            return {stored, length, ENOBUFS};
        }
        if (length != 0) {
            memcpy(out + stored, handle->RecordBuffer, length);
            stored += length;
        }
        handle->nCurrentRecord = static_cast<int32_t>(static_cast<uint32_t>(handle->nCurrentRecord) + step);
    } while (isInLog(handle->nCurrentRecord));
    return {stored, 0, ERANGE};
}

// The first record of a read.
int32_t firstRecord(const EventLogHandle &handle, DWORD flags, DWORD offset) {
    if ((flags & EVENTLOG_SEEK_READ) != 0) {
        return static_cast<int32_t>(offset);
    }
    if (!handle.bFirstRead) {
        return handle.nCurrentRecord;
    }
    return (flags & EVENTLOG_FORWARDS_READ) != 0 ? 1 : static_cast<int32_t>(nSyslogRecordsTotal);
}

void lockForFork() {
    pthread_mutex_lock(&syslogMutex);
}

void unlockAfterFork() {
    pthread_mutex_unlock(&syslogMutex);
}

}  // namespace

const ForkHandlers kEventLogForkHandlers = {lockForFork, unlockAfterFork, unlockAfterFork};

void *vllOpenEventLog(LPCSTR /*lpUNCServerName*/, LPCSTR /*lpSourceName*/) {
    EventLogHandle *const handle = vlliAllocate<EventLogHandle>().release();
    if (handle == nullptr) {
        return nullptr;
    }
    *handle = {};
    handle->nCurrentRecord = 1;
    handle->bFirstRead = 1;
    const LogLock lock;
    handle->next = open_handles;
    open_handles = handle;
    ++nRefCount;
    if (!refresh()) {
        const KeepErrno keep_errno;
        dropHandle(&open_handles);
        return nullptr;
    }
    return handle;
}

BOOL vllCloseEventLog(void *hEventLog) {
    const LogLock lock;
    EventLogHandle **const link = findHandle(hEventLog);
    return link != nullptr ? dropHandle(link) : Fail(EINVAL);
}

BOOL vllClearEventLog(void * /*hEventLog*/, LPCSTR /*lpBackupFileName*/) {
    const KeepErrno keep_errno;
    const LogLock lock;
    char path[kSyslogPathSize];
    vlliGetSyslogPath(0, path);
    if (truncate(path, 0) == -1) {
        // A failure is not reported: the next count shows what is left.
    }
    vlliGetSyslogPath(1, path);
    remove(path);
    if (nRefCount > 0) {
        refresh();
    }
    return TRUE;
}

BOOL vllGetOldestEventLogRecord(void * /*hEventLog*/, LPDWORD OldestRecord) {
    if (OldestRecord != nullptr) {
        *OldestRecord = 1;
    }
    return TRUE;
}

BOOL vllGetNumberOfEventLogRecords(void * /*hEventLog*/, LPDWORD NumberOfRecords) {
    const LogLock lock;
    const BOOL mapped = refresh();
    if (mapped && NumberOfRecords != nullptr) {
        *NumberOfRecords = nSyslogRecordsTotal;
    }
    if (nRefCount == 0) {
        const KeepErrno keep_errno;
        unmapAll();
    }
    return mapped;
}

BOOL vllReadEventLog(void *hEventLog, DWORD dwReadFlags, DWORD dwRecordOffset, LPVOID lpBuffer,
                     DWORD nNumberOfBytesToRead, DWORD *pnBytesRead, DWORD *pnMinNumberOfBytesNeeded) {
    if (!exactlyOne(dwReadFlags, EVENTLOG_SEQUENTIAL_READ, EVENTLOG_SEEK_READ) ||
        !exactlyOne(dwReadFlags, EVENTLOG_FORWARDS_READ, EVENTLOG_BACKWARDS_READ) ||
        (lpBuffer == nullptr && nNumberOfBytesToRead != 0)) {
        return Fail(EINVAL);
    }
    const LogLock lock;
    EventLogHandle **const link = findHandle(hEventLog);
    if (link == nullptr) {
        return Fail(EINVAL);
    }
    EventLogHandle *const handle = *link;
    handle->nCurrentRecord = firstRecord(*handle, dwReadFlags, dwRecordOffset);
    const ReadResult result =
        readRecords(handle, dwReadFlags, static_cast<char *>(lpBuffer), nNumberOfBytesToRead);
    if (pnBytesRead != nullptr) {
        *pnBytesRead = result.stored;
    }
    if (result.stored != 0) {
        handle->bFirstRead = 0;
        return TRUE;
    }
    if (result.needed != 0) {
        if (pnMinNumberOfBytesNeeded != nullptr) {
            *pnMinNumberOfBytesNeeded = result.needed;
        }
        return Fail(ENOBUFS);
    }
    return Fail((dwReadFlags & EVENTLOG_SEQUENTIAL_READ) != 0 ? ERANGE : result.error);
}
