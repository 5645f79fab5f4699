// Events, as other modules use them.
#pragma once

#include "core/objmem.h"
#include "vwincompat/event.h"

BOOL vlliCloseEvent(ObjectRecord *record);
BOOL vlliDuplicateEvent(ObjectRecord *record, const ObjectRecord *source);

// Takes what an event's set of sockets reports: data is the pointer that the socket was added with, readiness the bits
// of epoll_ctl(2). Called without cancellation, with a reference on the event held.
using SocketActivityHandler = void (*)(void *data, ObjectRecord *event, uint32_t readiness);

// Sets the handler of all events' sets. Before the first one is set no event has a socket, and waits do not look.
void vlliSetSocketActivityHandler(SocketActivityHandler handler);

// The handler, or null.
SocketActivityHandler vlliSocketActivityHandler();
