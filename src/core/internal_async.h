// The asynchronous descriptor service, as the files' operations use it.
#pragma once

#include <sys/epoll.h>

#include "base/fork_handlers.h"
#include "vwincompat/asyncio.h"
#include "vwincompat/overlapped.h"

extern const ForkHandlers kAsyncServiceForkHandlers;

// Adds a prepared record's descriptor to the service's set, for a read or a write: TRUE, or FALSE with errno.
BOOL vlliRegisterTransfer(OverlappedRecord *record, bool write);

// Takes a descriptor out of the set: TRUE, or FALSE with errno. The service does not touch the record afterwards.
BOOL vlliCancelTransfer(int fd);

// Moves bytes of one ready descriptor, and ends or re-arms its transfer. The result of the read or write.
int32_t vlliProcessFd(epoll_event *event);
