// Serial ports: what the two watchers of a record share with the operations that start, arm and stop them.
#pragma once

#include "vwincompat/serial.h"

// The events that the modem watcher reports.
constexpr uint32_t kModemEventMask = EV_CTS | EV_DSR | EV_RING | EV_RLSD;

// The start routines of the two watcher threads; the argument is an OverlappedRecord.
uint32_t vlliWaitForData(LPVOID overlapped);
uint32_t vlliWaitForModem(LPVOID overlapped);

// The transitions of a port's modem lines that a record already knows of. A record with a modem watcher keeps them from
// its set-up until they are dropped; noting them makes the present state of the lines the known one. Both noting and
// dropping do nothing for a record that keeps none. Under the record's mutex, or while it has no watcher.
void vlliKeepModemCounters(const OverlappedRecord *record);
void vlliNoteModemCounters(const OverlappedRecord *record);
void vlliDropModemCounters(const OverlappedRecord *record);
