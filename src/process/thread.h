// Threads: the row of the type table.
#pragma once

#include "core/objmem.h"
#include "vwincompat/thread.h"

BOOL vlliCloseThread(ObjectRecord *record);
BOOL vlliDuplicateThread(ObjectRecord *record, const ObjectRecord *source);

// True while a thread, whose reference the caller holds, has surely not signalled its end.
bool vlliThreadRuns(const ObjectRecord *record);
