// The asynchronous descriptor service: registering and cancelling background transfers.
#pragma once

#include <sys/epoll.h>

#include "base/fork_handlers.h"
#include "vwincompat/asyncio.h"
#include "vwincompat/overlapped.h"

extern const ForkHandlers kAsyncServiceForkHandlers;

// Adds a prepared record's descriptor to the service's set, for a read or a write: TRUE, or FALSE with errno.
BOOL vlliRegisterTransfer(OverlappedRecord *record, bool write);

// Removes a descriptor from the set: TRUE, or FALSE with errno. The service does not use the record afterwards.
BOOL vlliCancelTransfer(int fd);

// Carries out what a ready descriptor permits of its transfer, and ends the transfer or arms it again. The result of
// the read or write.
int32_t vlliProcessFd(epoll_event *event);
