// Socket network events, as the waits use them.
#pragma once

#include "core/objmem.h"
#include "vwincompat/socket.h"

// Turns the readiness that an event's epoll set reported into pending events of the selection record, a WSASockData.
void vlliWsaProcessNetworkEvents(void *data, ObjectRecord *event, uint32_t readiness);
