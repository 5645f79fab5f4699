// Network events of sockets: what the files of this module share.
//
// A selected socket stands in the epoll set of its event. Which record it stands there for is kept beside the caller's
// record, whose layout is fixed: the record alone does not say whether its selection is still in force, nor whether its
// socket number now belongs to another record's socket.
#pragma once

#include "core/objmem.h"
#include "sync/event.h"
#include "vwincompat/socket.h"

extern const ForkHandlers kSelectionForkHandlers;

// Takes what the set of an event reports, for the record of the socket that is ready.
SocketActivity vlliTakeSocketActivity(uint64_t data, ObjectRecord *event, uint32_t readiness);

// Turns the readiness of a record's socket into pending events of the record.
void vlliWsaProcessNetworkEvents(WSASockData *record, ObjectRecord *event, uint32_t readiness);

// The readiness that a record's selected events need, before anything has occurred, and without write readiness.
uint32_t vlliInitialReadiness(const WSASockData *record);
uint32_t vlliReadReadiness(const WSASockData *record);

// Puts the socket of a record, whose fields are filled, into an event's set: 0, or -1 with errno. A selection that is
// still in force, because the caller has set the record to zero without cancelling, ends.
int vlliEnterSocketSet(const ObjectRecord *event, WSASockData *record, uint32_t readiness);

// Changes the readiness that wakes the event, for as long as it lasts: 0, or -1 with errno, which is ENOENT when
// the record's socket does not stand in this event's set.
int vlliChangeSocketReadiness(const ObjectRecord *event, const WSASockData *record, uint32_t readiness);

// Takes the record's socket out of the set that it stands in: true, also when it stands in none; or false with errno.
bool vlliLeaveSocketSet(const WSASockData *record);

// For a socket that is neither connected nor listening, which the kernel reports as ready without an end: it is reported
// again when that changes, until vlliChangeSocketReadiness(). Restoring does that call if the socket is still so.
void vlliReportChangesOnly(const ObjectRecord *event, const WSASockData *record, uint32_t readiness);
void vlliRestoreReadiness(const ObjectRecord *event, const WSASockData *record, uint32_t readiness);

// The record of the socket that an event's set reported with this number; null when there is none.
WSASockData *vlliFindSelectedRecord(const ObjectRecord *event, uint64_t data);
