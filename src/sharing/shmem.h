// Named objects and file mappings, as the other modules use them.
#pragma once

#include "core/objmem.h"
#include "vwincompat/mapping.h"

// Makes or opens a named mutex (initial: the ownership flag) or semaphore (initial: the count). Returns the handle, with
// errno EEXIST if the object was in use, else 0; or 0 with errno: EINVAL for another type.
HANDLE vlliCreateNamedObject(uint32_t type, LPCSTR name, uint32_t initial);

BOOL vlliCloseNamedObject(ObjectRecord *record);
BOOL vlliDuplicateNamedObject(ObjectRecord *record, const ObjectRecord *source);
BOOL vlliCloseShmem(ObjectRecord *record);
BOOL vlliDuplicateShmem(ObjectRecord *record, const ObjectRecord *source);
