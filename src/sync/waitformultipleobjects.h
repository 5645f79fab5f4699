// Waiting on descriptors, for the other wait operation.
#pragma once

#include "core/objmem.h"
#include "vwincompat/wait.h"

// Waits on one object that has a descriptor. The caller holds its reference. The result of vllWaitForMultipleObjects().
DWORD vlliWaitForRecord(HANDLE handle, ObjectRecord *record, DWORD timeout_ms);
