// Socket network events, as the waits use them.
#pragma once

#include "core/objmem.h"
#include "vwincompat/socket.h"

// True once any socket was ever selected into an event of this process.
bool vlliSocketsSelected();

// Turns the readiness that a socket's epoll set reported into pending events of its selection record.
void vlliWsaProcessNetworkEvents(WSASockData *record, ObjectRecord *event, uint32_t readiness);
