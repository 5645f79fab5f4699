// Network events of sockets: what the files of this module share. A selected socket stands in the epoll set of its
// event, with the address of the caller's selection record as data; removing it there takes no record.
#pragma once

#include "core/objmem.h"
#include "vwincompat/socket.h"

// Turns the readiness that an event's set reported for a socket into pending events of its selection record, a
// WSASockData.
void vlliWsaProcessNetworkEvents(void *data, ObjectRecord *event, uint32_t readiness);

// Adds a socket to an event's set, or changes the readiness that wakes the event: 0, or -1 with errno.
int vlliAddToSocketSet(const ObjectRecord *event, int socket, uint32_t readiness, WSASockData *record);
int vlliChangeInSocketSet(const ObjectRecord *event, int socket, uint32_t readiness, WSASockData *record);

// Removes a socket from an event's set: true, also when it had left before; or false with errno.
bool vlliRemoveFromSocketSet(const ObjectRecord *event, int socket);

// The readiness for reading that the selected events need.
uint32_t vlliReadReadiness(const WSASockData *record);
