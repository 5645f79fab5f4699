// Waiting on descriptors, for the other wait operation.
#pragma once

#include "core/objmem.h"
#include "vwincompat/wait.h"

// True for the types whose state is a descriptor: events, timers, consoles, threads.
bool vlliIsDescriptorType(uint32_t type);

// Waits on one object of such a type whose reference the caller holds. The result of vllWaitForMultipleObjects().
DWORD vlliWaitForRecord(HANDLE handle, ObjectRecord *record, DWORD timeout_ms);
