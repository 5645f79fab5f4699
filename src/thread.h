// Threads: the row of the type table.
#pragma once

#include "objmem.h"
#include "vwincompat/thread.h"

BOOL vlliCloseThread(ObjectRecord *record);
BOOL vlliDuplicateThread(ObjectRecord *record, const ObjectRecord *source);
