// Waiting on one object through its descriptor, for vllWaitForSingleObject().
#pragma once

#include "core/objmem.h"
#include "vwincompat/wait.h"

// Waits on one object that has a descriptor. The caller holds the reference. The result is that of
// vllWaitForMultipleObjects().
DWORD vlliWaitForRecord(HANDLE handle, ObjectRecord *record, DWORD timeout_ms);
