// Waitable timers: the row of the type table.
#pragma once

#include "core/objmem.h"
#include "vwincompat/timer.h"

BOOL vlliCloseWaitableTimer(ObjectRecord *record);
BOOL vlliDuplicateWaitableTimer(ObjectRecord *record, const ObjectRecord *source);
