// Events: the functions of their row in the table of types, and the hook for sockets that are selected into events.
#pragma once

#include "core/objmem.h"
#include "vwincompat/event.h"

BOOL vlliCloseEvent(ObjectRecord *record);
BOOL vlliDuplicateEvent(ObjectRecord *record, const ObjectRecord *source);

// What came of the readiness of a socket.
enum class SocketActivity {
    kDelivered,  // the wait reports the event
    kNone,       // nothing occurred: the wait goes on
    kUnknown,    // this process has no such socket in the set: the wait reports the event, with a notice
};

// Handles the readiness of a socket in an event's set: data is the number with which the socket was added, readiness
// the bits of epoll_ctl(2). The caller has disabled cancellation and holds a reference on the event.
using SocketActivityHandler = SocketActivity (*)(uint64_t data, ObjectRecord *event, uint32_t readiness);

// Sets the handler for the sets of all events. Until it is set no event has a socket, and waits do not poll the sets.
void vlliSetSocketActivityHandler(SocketActivityHandler handler);

// The handler, or null.
SocketActivityHandler vlliSocketActivityHandler();

// Identifies the set of sockets of an event whose reference is held. An event and its duplicates have the same set. An
// event that is made later has another one, also when it gets the same handle.
uint32_t vlliSocketSetOf(const ObjectRecord *event);

// A handle of an event that has this set, or 0 when no event has it any more, so that the set is gone.
HANDLE vlliFindEventOfSocketSet(uint32_t set);
