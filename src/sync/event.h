// Events: the functions of their row in the table of types, and the hook for sockets that are selected into events.
#pragma once

#include "core/objmem.h"
#include "vwincompat/event.h"

BOOL vlliCloseEvent(ObjectRecord *record);
BOOL vlliDuplicateEvent(ObjectRecord *record, const ObjectRecord *source);

// Handles the readiness of a socket in an event's set: data is the pointer with which the socket was added, readiness
// the bits of epoll_ctl(2). The caller has disabled cancellation and holds a reference on the event.
using SocketActivityHandler = void (*)(void *data, ObjectRecord *event, uint32_t readiness);

// Sets the handler for the sets of all events. Until it is set no event has a socket, and waits do not poll the sets.
void vlliSetSocketActivityHandler(SocketActivityHandler handler);

// The handler, or null.
SocketActivityHandler vlliSocketActivityHandler();
