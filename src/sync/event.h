// Events, as other modules use them.
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

// Takes what an event's set of sockets reports: data is the number that the socket was added with, readiness the bits
// of epoll_ctl(2). Called without cancellation, with a reference on the event held.
using SocketActivityHandler = SocketActivity (*)(uint64_t data, ObjectRecord *event, uint32_t readiness);

// Sets the handler of all events' sets. Before the first one is set no event has a socket, and waits do not look.
void vlliSetSocketActivityHandler(SocketActivityHandler handler);

// The handler, or null.
SocketActivityHandler vlliSocketActivityHandler();

// Identifies the set of sockets of an event whose reference is held. An event and its duplicates have the same set. An
// event that is made later has another one, also when it gets the same handle.
uint32_t vlliSocketSetOf(const ObjectRecord *event);

// A handle of an event that has this set, or 0 when no event has it any more, so that the set is gone.
HANDLE vlliFindEventOfSocketSet(uint32_t set);
